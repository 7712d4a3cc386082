// SPDX-License-Identifier: ISC
// Doubly linked ring with the links inside the listed records. The head is a
// link of its own; an empty ring is a head that points at itself. The list owns
// nothing: whoever frees a record takes it out first.
#pragma once

#include <stdbool.h>
#include <stddef.h>

#ifndef container_of
#define container_of(ptr, type, member)                                        \
	(__extension__({                                                       \
		const __typeof__(((type *)NULL)->member) *member_of_ = (ptr);  \
		(type *)(void *)((char *)member_of_ - offsetof(type, member)); \
	}))
#endif

struct list_head {
	struct list_head *next;
	struct list_head *prev;
};

// <sys/queue.h> has a LIST_HEAD of another meaning.
#undef LIST_HEAD
#define LIST_HEAD_INIT(name)     \
	{                        \
		&(name), &(name) \
	}
#define LIST_HEAD(name) struct list_head name = LIST_HEAD_INIT(name)

// NOLINTNEXTLINE(readability-identifier-naming): its name everywhere
static inline void INIT_LIST_HEAD(struct list_head *list)
{
	list->next = list;
	list->prev = list;
}

static inline bool list_empty(const struct list_head *head)
{
	return head->next == head;
}

// Puts `entry` right behind `head`: at the front of the list.
static inline void list_add(struct list_head *entry, struct list_head *head)
{
	entry->next = head->next;
	entry->prev = head;
	head->next->prev = entry;
	head->next = entry;
}

// Puts `entry` right before `head`: at the end of the list, or, when `head` is a
// listed record, in front of that record.
static inline void list_add_tail(struct list_head *entry, struct list_head *head)
{
	list_add(entry, head->prev);
}

// Leaves the links of `entry` NULL.
static inline void list_del(struct list_head *entry)
{
	// The analyzer loses sight of a ring's last record, and takes it for a freed one.
	entry->next->prev = entry->prev; // NOLINT(clang-analyzer-unix.Malloc)
	entry->prev->next = entry->next; // NOLINT(clang-analyzer-unix.Malloc)
	entry->next = NULL;
	entry->prev = NULL;
}

// Leaves `entry` a ring of its own, so that it may be deleted again.
static inline void list_del_init(struct list_head *entry)
{
	list_del(entry);
	INIT_LIST_HEAD(entry);
}

#define list_entry(ptr, type, field) container_of(ptr, type, field)
#define list_first_entry(head, type, field) list_entry((head)->next, type, field)

#define list_for_each_entry(pos, head, field)                                                    \
	for ((pos) = list_first_entry(head, __typeof__(*(pos)), field); &(pos)->field != (head); \
	     (pos) = list_entry((pos)->field.next, __typeof__(*(pos)), field))

// The body may delete `pos`, and nothing else.
#define list_for_each_entry_safe(pos, following, head, field)                       \
	for ((pos) = list_first_entry(head, __typeof__(*(pos)), field),             \
	    (following) = list_entry((pos)->field.next, __typeof__(*(pos)), field); \
	     &(pos)->field != (head); (pos) = (following),                          \
	    (following) = list_entry((following)->field.next, __typeof__(*(following)), field))
