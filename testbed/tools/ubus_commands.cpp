// SPDX-License-Identifier: ISC
#include "ubus_commands.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace ubus_command
{

namespace
{

constexpr std::chrono::seconds default_call_timeout{30};

// Arguments given as JSON.
class JsonMessage
{
public:
	// `json` may be null: no arguments.
	explicit JsonMessage(const char *json)
	{
		blob_buf_init(&buffer_, 0);
		valid_ = !json || blobmsg_add_json_from_string(&buffer_, json);
	}
	~JsonMessage()
	{
		blob_buf_free(&buffer_);
	}
	JsonMessage(const JsonMessage &) = delete;
	JsonMessage &operator=(const JsonMessage &) = delete;

	// Null when the text was no JSON object.
	[[nodiscard]] blob_attr *get() const
	{
		return valid_ ? buffer_.head : nullptr;
	}

private:
	blob_buf buffer_{};
	bool valid_ = false;
};

const char *type_name(const blob_attr *argument)
{
	switch (blobmsg_get_u32(const_cast<blob_attr *>(argument))) {
	case BLOBMSG_TYPE_STRING:
		return "String";
	case BLOBMSG_TYPE_INT32:
		return "Integer";
	case BLOBMSG_TYPE_BOOL:
		return "Boolean";
	case BLOBMSG_TYPE_TABLE:
		return "Table";
	case BLOBMSG_TYPE_ARRAY:
		return "Array";
	case BLOBMSG_TYPE_DOUBLE:
		return "Double";
	default:
		return "(unknown)";
	}
}

// Calls `visit` for each whole attribute of that type in the list.
template<typename Visitor> void for_each(std::string_view list, int type, Visitor visit)
{
	while (list.size() >= sizeof(blob_attr)) {
		const auto *attr = reinterpret_cast<const blob_attr *>(list.data());

		if (blob_raw_len(attr) < sizeof(blob_attr) || blob_pad_len(attr) > list.size())
			return;
		if (blobmsg_check_attr_len(attr, true, list.size()) && blobmsg_type(attr) == type)
			visit(attr);
		list.remove_prefix(blob_pad_len(attr));
	}
}

void print_method(const blob_attr *method)
{
	const char *separator = "";

	std::printf("\t\"%s\":{", blobmsg_name(method));
	for_each({static_cast<const char *>(blobmsg_data(method)), blobmsg_data_len(method)},
		 BLOBMSG_TYPE_INT32, [&separator](const blob_attr *argument) {
			 std::printf("%s\"%s\":\"%s\"", separator, blobmsg_name(argument),
				     type_name(argument));
			 separator = ",";
		 });
	std::printf("}\n");
}

void print_object(ubus_context *, ubus_object_data *object, void *priv)
{
	const auto &options = *static_cast<const Options *>(priv);

	if (options.simple || !options.verbose) {
		std::printf("%s\n", object->path);
		return;
	}
	std::printf("'%s' @%08x\n", object->path, object->id);
	if (object->signature) {
		for_each({static_cast<const char *>(blob_data(object->signature)),
			  blob_len(object->signature)},
			 BLOBMSG_TYPE_TABLE, print_method);
	}
}

void print_answer(ubus_request *request, int, blob_attr *answer)
{
	const auto &options = *static_cast<const Options *>(request->priv);
	const std::unique_ptr<char, decltype(&std::free)> json(
		blobmsg_format_json_indent(answer, true, options.simple ? -1 : 0), std::free);

	if (json)
		std::printf("%s\n", json.get());
}

const char *word_or_null(Arguments arguments, size_t index)
{
	return index < arguments.size() ? arguments[index] : nullptr;
}

} // namespace

int list(ubus_context &bus, const Options &options, Arguments arguments)
{
	if (arguments.size() > 1)
		return wrong_usage;
	Options copy = options;
	return ubus_lookup(&bus, word_or_null(arguments, 0), print_object, &copy);
}

int call(ubus_context &bus, const Options &options, Arguments arguments)
{
	if (arguments.size() < 2 || arguments.size() > 3)
		return wrong_usage;
	const JsonMessage message(word_or_null(arguments, 2));
	if (!message.get())
		return UBUS_STATUS_PARSE_ERROR;
	uint32_t object = 0;
	const int status = ubus_lookup_id(&bus, arguments[0], &object);
	if (status)
		return status;
	Options copy = options;
	const std::chrono::milliseconds timeout = options.timeout.value_or(default_call_timeout);
	return ubus_invoke(&bus, object, arguments[1], message.get(), print_answer, &copy,
			   static_cast<int>(timeout.count()));
}

int send(ubus_context &bus, const Options &, Arguments arguments)
{
	if (arguments.empty() || arguments.size() > 2)
		return wrong_usage;
	const JsonMessage message(word_or_null(arguments, 1));
	if (!message.get())
		return UBUS_STATUS_PARSE_ERROR;
	return ubus_send_event(&bus, arguments[0], message.get());
}

} // namespace ubus_command
