// SPDX-License-Identifier: ISC
// The chunks of a firmware file: the input is the file, as it is and once more with the CRCs of its
// chunks put right, without which hardly any input would get past the first of them.
#include <algorithm>
#include <iterator>
#include <vector>

#include "fuzz_target.h"
#include "fwtool_chunk.h"

namespace
{

using fwtool::Bytes;
using fwtool::ChunkType;
using fwtool::SearchResult;

constexpr std::size_t trailer_size = 16;
constexpr ChunkType types[] = {ChunkType::metadata, ChunkType::signature};

std::size_t read_be32(Bytes bytes)
{
	std::size_t value = 0;
	for (const std::uint8_t byte : bytes.first(4)) {
		value = value << 8 | byte;
	}
	return value;
}

void search(Bytes file)
{
	for (const ChunkType type : types) {
		const fwtool::Search found = fwtool::find_chunk(file, type);
		if (found.result != SearchResult::found) {
			require(found.data.empty(), "nothing found, no data");
			continue;
		}
		const std::size_t end = file.size() - trailer_size;
		require(found.start > 0 && found.start <= end, "a chunk begins in the file");
		require(found.data.data() >= file.data() + found.start, "data begin in the chunk");
		require(found.data.data() + found.data.size() <= file.data() + end,
			"data end before the last trailer");
	}
}

// Where trailers stand, following the sizes as far as they make sense; the first is the last.
std::vector<std::size_t> trailer_positions(Bytes file)
{
	std::vector<std::size_t> positions;
	std::size_t end = file.size();
	while (end >= trailer_size) {
		positions.push_back(end - trailer_size);
		const std::size_t size = read_be32(file.subspan(end - 4));
		if (size < trailer_size || size > end) {
			break;
		}
		end -= size;
	}
	return positions;
}

// make_chunk computes a CRC over what the chunk is for; an empty signature adds nothing to it.
void put_crcs_right(std::vector<std::uint8_t> &file)
{
	std::vector<std::size_t> positions = trailer_positions(file);
	for (auto position = positions.rbegin(); position != positions.rend(); ++position) {
		const std::vector<std::uint8_t> empty = fwtool::make_chunk(
			Bytes(file).first(*position), ChunkType::signature, Bytes());
		std::copy_n(empty.begin(), 8,
			    file.begin() + static_cast<std::ptrdiff_t>(*position));
	}
}

void append_and_find(Bytes file)
{
	for (const ChunkType type : types) {
		const std::size_t cut =
			file.size() - std::min(file.size() / 2, fwtool::data_limit(type));
		const Bytes data = file.subspan(cut);
		std::vector<std::uint8_t> whole(file.begin(),
						file.begin() + static_cast<std::ptrdiff_t>(cut));
		const std::vector<std::uint8_t> chunk =
			fwtool::make_chunk(file.first(cut), type, data);
		whole.insert(whole.end(), chunk.begin(), chunk.end());
		const fwtool::Search found = fwtool::find_chunk(whole, type);
		require(found.result == SearchResult::found, "what was appended is found");
		require(std::equal(found.data.begin(), found.data.end(), data.begin(), data.end()),
			"and is what was appended");
		require(found.start == cut, "where it was appended");
	}
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
	if (size == 0) {
		return 0;
	}
	const Bytes file(data, size);
	search(file);
	append_and_find(file);
	std::vector<std::uint8_t> repaired(file.begin(), file.end());
	put_crcs_right(repaired);
	search(repaired);
	return 0;
}
