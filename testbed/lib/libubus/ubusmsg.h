// SPDX-License-Identifier: ISC
// What travels between the bus and its clients: message head, message types,
// attribute ids and status codes. The library and the broker read it; programs need
// only the status codes.
//
// A message is this head, then one blob attribute of id 0 whose payload is a list of
// plain attributes, at most one of each id.
#pragma once

#include <stdint.h>

#include <libubox/blob.h>

// Objects of the broker itself; those of clients have ids from the last one on.
#define UBUS_SYSTEM_OBJECT_EVENT 1
#define UBUS_SYSTEM_OBJECT_MAX 1024

struct ubus_msghdr {
	uint8_t version; // 0
	uint8_t type;	 // enum ubus_msg_type
	uint16_t seq;	 // big-endian; an answer repeats the request's
	uint32_t peer;	 // big-endian: client or object id, by type and direction
};

enum ubus_msg_type {
	UBUS_MSG_HELLO,	 // the broker's first word; peer = the client's own id
	UBUS_MSG_STATUS, // ends an answer
	UBUS_MSG_DATA,	 // part of an answer
	UBUS_MSG_PING,
	UBUS_MSG_LOOKUP,
	UBUS_MSG_INVOKE,
	UBUS_MSG_ADD_OBJECT,
	UBUS_MSG_REMOVE_OBJECT,
	UBUS_MSG_SUBSCRIBE,
	UBUS_MSG_UNSUBSCRIBE,
	UBUS_MSG_NOTIFY,
	UBUS_MSG_MONITOR,
	__UBUS_MSG_LAST
};

enum ubus_msg_attr {
	UBUS_ATTR_UNSPEC,
	UBUS_ATTR_STATUS,    // int32, enum ubus_msg_status
	UBUS_ATTR_OBJPATH,   // string
	UBUS_ATTR_OBJID,     // int32
	UBUS_ATTR_METHOD,    // string
	UBUS_ATTR_OBJTYPE,   // int32
	UBUS_ATTR_SIGNATURE, // blobmsg table per method: argument name -> int32 type
	UBUS_ATTR_DATA,	     // blobmsg list
	UBUS_ATTR_TARGET,    // int32
	UBUS_ATTR_ACTIVE,    // int8
	UBUS_ATTR_NO_REPLY,  // int8
	UBUS_ATTR_SUBSCRIBERS,
	UBUS_ATTR_USER,	 // string, added by the broker
	UBUS_ATTR_GROUP, // string, added by the broker
	UBUS_ATTR_MAX
};

enum ubus_msg_status {
	UBUS_STATUS_OK,
	UBUS_STATUS_INVALID_COMMAND,
	UBUS_STATUS_INVALID_ARGUMENT,
	UBUS_STATUS_METHOD_NOT_FOUND,
	UBUS_STATUS_NOT_FOUND,
	UBUS_STATUS_NO_DATA,
	UBUS_STATUS_PERMISSION_DENIED,
	UBUS_STATUS_TIMEOUT,
	UBUS_STATUS_NOT_SUPPORTED,
	UBUS_STATUS_UNKNOWN_ERROR,
	UBUS_STATUS_CONNECTION_FAILED,
	UBUS_STATUS_NO_MEMORY,
	UBUS_STATUS_PARSE_ERROR,
	UBUS_STATUS_SYSTEM_ERROR,
	__UBUS_STATUS_LAST
};
