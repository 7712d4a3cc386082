// SPDX-License-Identifier: ISC
// The two records that the bus headers embed to keep objects by id. There is no
// balanced tree behind them here: a context holds a handful of objects, and the
// bus library keeps those in the list.
#pragma once

#include <stdbool.h>

#include "list.h"

struct avl_node {
	struct list_head list;
	const void *key;
};

struct avl_tree {
	struct list_head list_head;
	unsigned int count;
};
