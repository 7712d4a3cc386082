// SPDX-License-Identifier: ISC
#include "ubusd_objects.h"

#include <random>

#include "bus_headers.h"

namespace ubusd
{

bool matches(std::string_view pattern, std::string_view text)
{
	if (pattern.ends_with('*'))
		return text.starts_with(pattern.substr(0, pattern.size() - 1));
	return pattern == text;
}

uint32_t new_id(uint32_t lowest, const std::function<bool(uint32_t)> &is_taken)
{
	static std::random_device source;
	std::uniform_int_distribution<uint32_t> distribution(lowest);
	uint32_t id = 0;

	do {
		id = distribution(source);
	} while (is_taken(id));
	return id;
}

Object *ObjectTable::add(Client &owner, std::string_view path, std::shared_ptr<ObjectType> type)
{
	if (by_path_.contains(path))
		return nullptr;
	const uint32_t id = new_id(UBUS_SYSTEM_OBJECT_MAX,
				   [this](uint32_t candidate) { return find(candidate); });
	auto object = std::make_unique<Object>(
		Object{id, &owner, std::string(path), std::move(type), {}});
	Object *added = object.get();
	if (!path.empty())
		by_path_.emplace(path, added);
	by_id_.emplace(id, std::move(object));
	return added;
}

void ObjectTable::remove(const Object &object)
{
	by_path_.erase(object.path);
	by_id_.erase(object.id);
}

std::shared_ptr<ObjectType> ObjectTable::new_type(std::string_view signature)
{
	const uint32_t id =
		new_id(1, [this](uint32_t candidate) { return find_type(candidate) != nullptr; });

	return std::make_shared<ObjectType>(ObjectType{id, std::string(signature)});
}

Object *ObjectTable::find(uint32_t id) const
{
	const auto found = by_id_.find(id);

	return found == by_id_.end() ? nullptr : found->second.get();
}

std::shared_ptr<ObjectType> ObjectTable::find_type(uint32_t id) const
{
	for (const auto &[object_id, object] : by_id_) {
		if (object->type && object->type->id == id)
			return object->type;
	}
	return nullptr;
}

std::vector<const Object *> ObjectTable::matching(std::string_view pattern) const
{
	std::vector<const Object *> found;

	for (const auto &[path, object] : by_path_) {
		if (matches(pattern, path))
			found.push_back(object);
	}
	return found;
}

std::vector<const Object *> ObjectTable::owned_by(const Client &owner) const
{
	std::vector<const Object *> found;

	for (const auto &[id, object] : by_id_) {
		if (object->owner == &owner)
			found.push_back(object.get());
	}
	return found;
}

} // namespace ubusd
