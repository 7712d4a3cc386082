// SPDX-License-Identifier: ISC
// Shared by blob.c and blobmsg.c, which both open nests. Nobody else includes it.
#pragma once

#include "blob.h"

// Where an attribute stands, which stays true when the buffer moves.
size_t blob_offset_of(const struct blob_buf *buf, const struct blob_attr *attr);

// Makes `attr`, the last attribute of the nest at `outer_offset`, the one that is
// appended to. Returns the cookie for blob_nest_end.
void *blob_nest_enter(struct blob_buf *buf, struct blob_attr *attr, size_t outer_offset);
