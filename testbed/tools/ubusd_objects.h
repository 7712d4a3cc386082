// SPDX-License-Identifier: ISC
// The objects that clients have put on the bus, by id and by path. The broker fills and
// asks it. It sends nothing.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ubusd
{

class Client;

// What a set of objects can do; gone with the last of them.
struct ObjectType {
	uint32_t id;
	std::string signature; // blobmsg list of a table per method
};

struct Object {
	uint32_t id;
	Client *owner;
	std::string path;		   // empty: known by its id only
	std::shared_ptr<ObjectType> type;  // may be null
	std::vector<std::string> patterns; // events that the owner wants delivered here
};

// Whether `text` is `pattern`, or begins with it when it ends in `*`.
[[nodiscard]] bool matches(std::string_view pattern, std::string_view text);

// A random number from `lowest` on for which `is_taken` is false.
[[nodiscard]] uint32_t new_id(uint32_t lowest, const std::function<bool(uint32_t)> &is_taken);

class ObjectTable
{
public:
	using ById = std::map<uint32_t, std::unique_ptr<Object>>;

	// The new object, or null when the path is taken.
	Object *add(Client &owner, std::string_view path, std::shared_ptr<ObjectType> type);
	void remove(const Object &object);

	[[nodiscard]] std::shared_ptr<ObjectType> new_type(std::string_view signature);

	// Null when there is none.
	[[nodiscard]] Object *find(uint32_t id) const;
	[[nodiscard]] std::shared_ptr<ObjectType> find_type(uint32_t id) const;

	// In path order; only objects that have one.
	[[nodiscard]] std::vector<const Object *> matching(std::string_view pattern) const;

	[[nodiscard]] std::vector<const Object *> owned_by(const Client &owner) const;
	[[nodiscard]] const ById &all() const
	{
		return by_id_;
	}

private:
	ById by_id_;
	std::map<std::string, Object *, std::less<>> by_path_;
};

} // namespace ubusd
