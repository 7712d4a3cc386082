// SPDX-License-Identifier: ISC
// A program's side of the message bus: connection, objects with methods, calls,
// events. The daemon and the `ubus` command call it; the broker does not. One thread,
// one event loop; subscriptions, access lists and descriptors in messages are left
// out.
//
// Every function that returns int returns an enum ubus_msg_status, 0 for success,
// unless it says otherwise. The caller owns every record it passes and keeps it in
// place as long as the connection knows it.
#pragma once

#include <stdbool.h>
#include <stdint.h>
#include <string.h>

#include <libubox/avl.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>

#include "ubusmsg.h"

#ifdef __cplusplus
extern "C" {
#endif

struct ubus_context;
struct ubus_object;
struct ubus_object_data;
struct ubus_event_handler;
struct ubus_request;
struct ubus_request_data;
struct ubus_inbound; // a message on its way in; the library's own

// A method's handler. `msg` holds the arguments and lasts until the handler returns,
// as do the strings in `req`. The return value is the call's status, sent right after
// the return unless the request was deferred.
typedef int (*ubus_handler_t)(struct ubus_context *ctx, struct ubus_object *obj,
			      struct ubus_request_data *req, const char *method,
			      struct blob_attr *msg);
typedef void (*ubus_lookup_handler_t)(struct ubus_context *ctx, struct ubus_object_data *obj,
				      void *priv);
typedef void (*ubus_event_handler_t)(struct ubus_context *ctx, struct ubus_event_handler *ev,
				     const char *type, struct blob_attr *msg);

// One part of an answer; `type` is UBUS_MSG_DATA. The request must stay.
typedef void (*ubus_data_handler_t)(struct ubus_request *req, int type, struct blob_attr *msg);

// The answer's end. The request is out of the connection already and may be freed.
typedef void (*ubus_complete_handler_t)(struct ubus_request *req, int ret);

struct ubus_method {
	const char *name;
	ubus_handler_t handler;
	unsigned long mask; // bit n set: only these policy entries are shown; 0: all
	unsigned long tags; // not looked at
	const struct blobmsg_policy *policy; // what `list -v` shows; nothing is enforced
	int n_policy;
};

#define UBUS_METHOD(method_name, method_handler, method_policy)                           \
	{                                                                                 \
		.name = (method_name), .handler = (method_handler), .mask = 0, .tags = 0, \
		.policy = (method_policy), .n_policy = (int)ARRAY_SIZE(method_policy)     \
	}
#define UBUS_METHOD_NOARG(method_name, method_handler)                                    \
	{                                                                                 \
		.name = (method_name), .handler = (method_handler), .mask = 0, .tags = 0, \
		.policy = NULL, .n_policy = 0                                             \
	}

struct ubus_object_type {
	const char *name;
	uint32_t id;			   // the library's
	const struct ubus_method *methods; // what the bus is told of
	int n_methods;
};

#define UBUS_OBJECT_TYPE(type_name, type_methods)                        \
	{                                                                \
		.name = (type_name), .id = 0, .methods = (type_methods), \
		.n_methods = (int)ARRAY_SIZE(type_methods)               \
	}

struct ubus_object {
	struct avl_node avl; // the library's
	const char *name;    // path on the bus; NULL: reachable by id only
	uint32_t id;	     // the library's; 0 while not on the bus
	const char *path;    // not looked at
	struct ubus_object_type *type;
	const struct ubus_method *methods; // what can be called; the first of a name counts
	int n_methods;
};

struct ubus_event_handler {
	struct ubus_object obj; // the library's; must start zeroed
	ubus_event_handler_t cb;
};

struct ubus_context {
	struct list_head requests; // asynchronous ones that wait for their answer
	struct avl_tree objects;   // on this connection
	struct list_head pending;  // inbound messages that came while a call waited
	struct uloop_fd sock;
	struct uloop_timeout pending_timer; // goes through `pending` from the loop
	uint32_t local_id;		    // what the broker calls this connection
	uint16_t request_seq;

	// The broker is gone, and open requests have ended. Called from the loop, when it
	// has taken the socket out already, and from within a call that waits, while the
	// socket is still registered: several times for one loss. What it is set to at
	// first ends the loop if the socket is registered. Never NULL.
	void (*connection_lost)(struct ubus_context *ctx);

	struct ubus_inbound *inbound; // the message that is being received, owned
};

// One object found by ubus_lookup. The pointers last until the callback returns.
struct ubus_object_data {
	uint32_t id;
	uint32_t type_id; // 0: no type
	const char *path;
	struct blob_attr *signature; // blobmsg list of a table per method; may be NULL
};

struct ubus_acl_key {
	const char *user;
	const char *group;
	const char *object;
};

// A call that came in.
struct ubus_request_data {
	uint32_t object;
	uint32_t peer; // the caller
	uint16_t seq;
	struct ubus_acl_key acl; // who the broker says the caller is; lasts as the handler does
	bool deferred;
	int fd; // to go with the answer; always -1, none: descriptors are not sent here
};

// A call that went out.
struct ubus_request {
	struct list_head list;
	int status_code;
	bool status_msg; // the answer has ended
	uint32_t peer;
	uint16_t seq;
	ubus_data_handler_t raw_data_cb; // gets the whole message
	ubus_data_handler_t data_cb;	 // gets its DATA attribute
	ubus_complete_handler_t complete_cb;
	struct ubus_context *ctx;
	void *priv; // the caller's
};

// Connects to the broker's socket, NULL for the usual path, and waits for its
// greeting. NULL when there is none. ubus_free ends the connection.
struct ubus_context *ubus_connect(const char *path);
void ubus_free(struct ubus_context *ctx);

// Connects again, after a loss or at any time, and puts the objects of the connection on
// the bus again, with new ids. The socket is not put into the loop. Returns 0 also when an
// object was refused or the broker went away again meanwhile: the object's id is then 0,
// the connection has forgotten it, and sock.eof tells of the broker. After a failure
// sock.fd may be the number of a descriptor that is closed: set it to -1, or the next
// call closes whatever has that number by then.
int ubus_reconnect(struct ubus_context *ctx, const char *path);

// The same as ubus_connect on a record of the caller's; ubus_shutdown ends it. Returns 0
// or -1.
int ubus_connect_ctx(struct ubus_context *ctx, const char *path);
void ubus_shutdown(struct ubus_context *ctx);

// The text of a status code; never NULL.
const char *ubus_strerror(int error);

static inline void ubus_add_uloop(struct ubus_context *ctx)
{
	uloop_fd_add(&ctx->sock, ULOOP_BLOCKING | ULOOP_READ);
}

// Puts an object on the bus, and takes it off again. UBUS_STATUS_INVALID_ARGUMENT:
// its path is taken. Both wait for the broker.
int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj);

// Calls `cb` for each object of that path, in path order. A trailing `*`
// stands for anything, NULL for every object. UBUS_STATUS_NOT_FOUND: there is none.
int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv);
int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id);

// Calls a method and waits for the end of the answer, at most `timeout` milliseconds
// (0: no limit). `msg` (NULL: no arguments) is a finished blob_buf's head. Messages that
// do not belong to the call are handled from the loop afterwards, so no handler runs
// inside another one. `fd` must be -1: descriptors are not sent.
int ubus_invoke_fd(struct ubus_context *ctx, uint32_t obj, const char *method,
		   struct blob_attr *msg, ubus_data_handler_t cb, void *priv, int timeout, int fd);
static inline int ubus_invoke(struct ubus_context *ctx, uint32_t obj, const char *method,
			      struct blob_attr *msg, ubus_data_handler_t cb, void *priv,
			      int timeout)
{
	return ubus_invoke_fd(ctx, obj, method, msg, cb, priv, timeout, -1);
}

// The same in two steps: initializes and sends `req`; then the caller sets its
// callbacks and hands it to one of the ubus_complete_request functions.
int ubus_invoke_async_fd(struct ubus_context *ctx, uint32_t obj, const char *method,
			 struct blob_attr *msg, struct ubus_request *req, int fd);
static inline int ubus_invoke_async(struct ubus_context *ctx, uint32_t obj, const char *method,
				    struct blob_attr *msg, struct ubus_request *req)
{
	return ubus_invoke_async_fd(ctx, obj, method, msg, req, -1);
}

// Waits for the answer's end and returns its status, UBUS_STATUS_TIMEOUT after
// `timeout` milliseconds (0: no limit), UBUS_STATUS_CONNECTION_FAILED when the broker
// goes away.
int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout);

// Lets the loop complete it. Should the broker go away, it ends with
// UBUS_STATUS_TIMEOUT.
void ubus_complete_request_async(struct ubus_context *ctx, struct ubus_request *req);

// Forgets an asynchronous request, whose callbacks will not run. Harmless when it has
// ended.
void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req);

// Sends one part of the answer to a call that came in; `msg` is a finished blob_buf's
// head.
int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg);

// Called by a handler that will answer later: `new_req` becomes the request to answer,
// and the handler's return value is not sent.
static inline void ubus_defer_request(struct ubus_context *ctx, struct ubus_request_data *req,
				      struct ubus_request_data *new_req)
{
	(void)ctx;
	memcpy(new_req, req, sizeof(*req));
	req->deferred = true;
}

// Ends a deferred call with status `ret`.
void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req,
				    int ret);

// Sends an event to whoever has registered for its id. `data` is a finished
// blob_buf's head.
int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data);

// Calls ev->cb for events whose id is `pattern`, or begins with it when it ends in `*`.
// May be called again on the same handler to add a pattern.
int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev,
				const char *pattern);

#ifdef __cplusplus
}
#endif
