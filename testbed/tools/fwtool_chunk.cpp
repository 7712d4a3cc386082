// SPDX-License-Identifier: ISC
#include "fwtool_chunk.h"

#include <optional>
#include <zlib.h>

namespace fwtool
{

namespace
{

constexpr std::uint32_t magic = 0x46577830; // "FWx0"
constexpr std::size_t trailer_size = 16;
constexpr std::size_t header_size = 8;
constexpr std::size_t size_limit = 32 * 1024 + trailer_size;

struct Trailer {
	std::size_t position = 0; // of its first byte in the file
	std::uint32_t crc = 0;
	std::uint8_t type = 0;
	std::uint32_t size = 0;
};

std::uint32_t read_be32(Bytes bytes, std::size_t position)
{
	std::uint32_t value = 0;
	for (const std::uint8_t byte : bytes.subspan(position, 4)) {
		value = value << 8 | byte;
	}
	return value;
}

void append_be32(std::vector<std::uint8_t> &out, std::uint32_t value)
{
	for (int shift = 24; shift >= 0; shift -= 8) {
		out.push_back(static_cast<std::uint8_t>(value >> shift));
	}
}

// Both ways without the final inversion, which zlib applies and takes back. An empty span may be a
// null pointer, and that makes zlib start anew.
std::uint32_t crc_without_inversion(std::uint32_t crc, Bytes bytes)
{
	if (bytes.empty()) {
		return crc;
	}
	return ~static_cast<std::uint32_t>(crc32_z(~crc, bytes.data(), bytes.size()));
}

constexpr std::uint32_t crc_start = 0xffffffff;

std::optional<Trailer> read_trailer(Bytes file)
{
	const std::size_t position = file.size() - trailer_size;
	if (read_be32(file, position) != magic) {
		return std::nullopt;
	}
	return Trailer{.position = position,
		       .crc = read_be32(file, position + 4),
		       .type = file[position + 8],
		       .size = read_be32(file, position + 12)};
}

bool is_type(const Trailer &trailer, ChunkType type)
{
	return trailer.type == static_cast<std::uint8_t>(type);
}

// Whether a reader of today understands the metadata; only version 0 exists.
bool header_is_known(Bytes chunk)
{
	return read_be32(chunk, 0) == 0;
}

SearchResult check_size(const Trailer &trailer)
{
	const std::size_t least =
		trailer_size + (is_type(trailer, ChunkType::metadata) ? header_size : 0);
	if (trailer.size < least || trailer.size > size_limit) {
		return SearchResult::size_invalid;
	}
	// A chunk that leaves no image before it belongs to nothing.
	if (trailer.size >= trailer.position + trailer_size) {
		return SearchResult::too_short;
	}
	return SearchResult::found;
}

// Peels chunks from the end by their sizes alone and notes the trailers it passed.
Search peel(Bytes file, ChunkType wanted, std::vector<Trailer> &passed)
{
	for (std::size_t end = file.size();;) {
		if (end <= trailer_size) {
			return {SearchResult::too_short};
		}
		const std::optional<Trailer> trailer = read_trailer(file.first(end));
		if (!trailer) {
			return {SearchResult::not_found};
		}
		passed.push_back(*trailer);
		const SearchResult size_result = check_size(*trailer);
		if (size_result != SearchResult::found) {
			return {size_result};
		}
		const std::size_t start = end - trailer->size;
		Bytes data = file.subspan(start, trailer->size - trailer_size);
		if (is_type(*trailer, ChunkType::metadata)) {
			if (wanted == ChunkType::signature) {
				return {SearchResult::not_found};
			}
			if (header_is_known(data)) {
				return {SearchResult::found, data.subspan(header_size), start};
			}
		} else if (is_type(*trailer, wanted)) {
			return {SearchResult::found, data, start};
		}
		end = start;
	}
}

// In one pass from the file's beginning, so that a file full of trailers costs no more than one
// with a single trailer.
bool crcs_match(Bytes file, const std::vector<Trailer> &passed)
{
	std::uint32_t crc = crc_start;
	std::size_t done = 0;
	for (auto trailer = passed.rbegin(); trailer != passed.rend(); ++trailer) {
		crc = crc_without_inversion(crc, file.subspan(done, trailer->position - done));
		done = trailer->position;
		if (crc != trailer->crc) {
			return false;
		}
	}
	return true;
}

} // namespace

std::size_t data_limit(ChunkType type)
{
	return type == ChunkType::metadata ? 30 * 1024 : 1024;
}

const char *search_result_text(SearchResult result)
{
	switch (result) {
	case SearchResult::found:
		return "Data found";
	case SearchResult::not_found:
		return "Data not found";
	case SearchResult::too_short:
		return "File too short";
	case SearchResult::size_invalid:
		return "Size error";
	case SearchResult::crc_mismatch:
		return "CRC error";
	}
	return "";
}

Search find_chunk(Bytes file, ChunkType wanted)
{
	std::vector<Trailer> passed;
	const Search search = peel(file, wanted, passed);
	return crcs_match(file, passed) ? search : Search{SearchResult::crc_mismatch};
}

std::vector<std::uint8_t> make_chunk(Bytes file, ChunkType type, Bytes data)
{
	std::vector<std::uint8_t> chunk;
	if (type == ChunkType::metadata) {
		chunk.resize(header_size);
	}
	chunk.insert(chunk.end(), data.begin(), data.end());
	const std::uint32_t crc =
		crc_without_inversion(crc_without_inversion(crc_start, file), chunk);
	const auto size = static_cast<std::uint32_t>(chunk.size() + trailer_size);
	append_be32(chunk, magic);
	append_be32(chunk, crc);
	append_be32(chunk, static_cast<std::uint32_t>(type) << 24);
	append_be32(chunk, size);
	return chunk;
}

} // namespace fwtool
