// SPDX-License-Identifier: ISC
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>

#include "blobmsg_json.h"

// As deep as the JSON parser goes. Attributes of a message can nest a hundred thousand
// times, which the stack would not survive.
#define MAX_DEPTH 32

struct writer {
	FILE *out;
	int indent; // tabs at the start of a line; negative: all in one line
	int depth;
	bool too_deep;
};

static void write_value(struct writer *w, struct blob_attr *attr);

static void write_line_break(struct writer *w)
{
	if (w->indent < 0)
		return;
	fputc('\n', w->out);
	for (int i = 0; i < w->indent + w->depth; i++)
		fputc('\t', w->out);
}

static const char *short_escape(char c)
{
	switch (c) {
	case '"':
		return "\\\"";
	case '\\':
		return "\\\\";
	case '\b':
		return "\\b";
	case '\n':
		return "\\n";
	case '\r':
		return "\\r";
	case '\t':
		return "\\t";
	default:
		return NULL;
	}
}

static void write_string(struct writer *w, const char *text)
{
	fputc('"', w->out);
	for (; *text; text++) {
		const char *escape = short_escape(*text);

		if (escape) {
			fputs(escape, w->out);
		} else if ((unsigned char)*text < ' ') {
			fprintf(w->out, "\\u%04x", (unsigned int)*text);
		} else {
			fputc(*text, w->out);
		}
	}
	fputc('"', w->out);
}

static void write_name(struct writer *w, struct blob_attr *attr)
{
	if (!blob_is_extended(attr) || !*blobmsg_name(attr))
		return;
	write_string(w, blobmsg_name(attr));
	fputs(w->indent < 0 ? ":" : ": ", w->out);
}

// Writes what `attr` holds between braces or brackets. Elements that are no whole
// attribute are left out, together with their comma.
static void write_members(struct writer *w, struct blob_attr *attr, bool array)
{
	struct blob_attr *pos;
	bool first = true;
	size_t rem;

	if (w->depth >= MAX_DEPTH) {
		w->too_deep = true;
		return;
	}
	w->depth++;
	fputc(array ? '[' : '{', w->out);
	write_line_break(w);
	blobmsg_for_each_attr(pos, attr, rem)
	{
		if (!blobmsg_check_attr_len(pos, false, rem))
			continue;
		if (!first) {
			fputc(',', w->out);
			write_line_break(w);
		}
		first = false;
		if (!array)
			write_name(w, pos);
		write_value(w, pos);
	}
	w->depth--;
	write_line_break(w);
	fputc(array ? ']' : '}', w->out);
}

static void write_value(struct writer *w, struct blob_attr *attr)
{
	switch (blobmsg_type(attr)) {
	case BLOBMSG_TYPE_UNSPEC:
		fputs("null", w->out);
		break;
	case BLOBMSG_TYPE_BOOL:
		fputs(blobmsg_get_bool(attr) ? "true" : "false", w->out);
		break;
	case BLOBMSG_TYPE_INT16:
		fprintf(w->out, "%" PRId16, (int16_t)blobmsg_get_u16(attr));
		break;
	case BLOBMSG_TYPE_INT32:
		fprintf(w->out, "%" PRId32, (int32_t)blobmsg_get_u32(attr));
		break;
	case BLOBMSG_TYPE_INT64:
		fprintf(w->out, "%" PRId64, (int64_t)blobmsg_get_u64(attr));
		break;
	case BLOBMSG_TYPE_DOUBLE:
		fprintf(w->out, "%f", blobmsg_get_double(attr));
		break;
	case BLOBMSG_TYPE_STRING:
		write_string(w, blobmsg_get_string(attr));
		break;
	case BLOBMSG_TYPE_ARRAY:
		write_members(w, attr, true);
		break;
	case BLOBMSG_TYPE_TABLE:
		write_members(w, attr, false);
		break;
	}
}

char *blobmsg_format_json_indent(struct blob_attr *attr, bool list, int indent)
{
	struct writer w = {.indent = indent};
	char *text = NULL;
	size_t len = 0;
	bool failed;

	// The outermost attribute of a message has no type that counts: its id is free.
	if (!attr || (!list && !blobmsg_check_attr(attr, false)))
		return NULL;
	w.out = open_memstream(&text, &len);
	if (!w.out)
		return NULL;
	if (list) {
		write_members(&w, attr,
			      blob_is_extended(attr) && blobmsg_type(attr) == BLOBMSG_TYPE_ARRAY);
	} else {
		write_name(&w, attr);
		write_value(&w, attr);
	}
	failed = ferror(w.out) || w.too_deep;
	if (fclose(w.out) != 0 || failed) {
		free(text);
		return NULL;
	}
	return text;
}
