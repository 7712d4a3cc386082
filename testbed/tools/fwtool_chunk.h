// SPDX-License-Identifier: ISC
// The chunks at the end of a firmware file: how they are found in a file's bytes and how a new
// one is made. Used by fwtool.cpp; opens no file. The bytes may come from anybody: every size in
// them is compared with what is there before it is followed.
//
//	image | chunk | chunk | ...		each chunk stands on everything before it
//	chunk = [8-byte header, metadata only] data, 16-byte trailer
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace fwtool
{

using Bytes = std::span<const std::uint8_t>;

enum class ChunkType : std::uint8_t { signature = 0, metadata = 1 };

// Largest data that a chunk of this type may carry, in bytes.
std::size_t data_limit(ChunkType type);

enum class SearchResult {
	found,
	not_found,    // the trailers end, or a metadata chunk stands above the signature
	too_short,    // the file ends before a trailer or before the size that a trailer gives
	size_invalid, // a trailer's size is less than its chunk's own parts, or beyond all bounds
	crc_mismatch, // one of the trailers passed does not match the bytes before it
};
const char *search_result_text(SearchResult result);

struct Search {
	SearchResult result = SearchResult::not_found;
	Bytes data = {};       // inside the searched bytes; empty unless found
	std::size_t start = 0; // where the found chunk begins, header included
};

// The last metadata chunk, or the signature above all metadata: a signature covers what stands
// before it only, so one that something was appended to says nothing about the file.
Search find_chunk(Bytes file, ChunkType wanted);

// What has to be appended to the file so that it carries the data.
std::vector<std::uint8_t> make_chunk(Bytes file, ChunkType type, Bytes data);

} // namespace fwtool
