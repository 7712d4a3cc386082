// SPDX-License-Identifier: ISC
//
// What a request came to: the `error_code` of every reply, and the one table of
// its texts. Every method uses it.
#pragma once

#include <cstdint>

namespace fwupdate
{

enum UpdateError : std::int32_t {
	NO_ERROR = 0,
	ERROR_CHECK = 1,	    // the update server gave no usable answer
	ERROR_DOWNLOAD = 2,	    // the firmware could not be downloaded
	ERROR_IMAGE = 3,	    // the firmware failed its check
	ERROR_NO_FILE = 4,	    // `test` was called without a file
	ERROR_WRITE = 5,	    // installer or boot partition failed
	ERROR_ALREADY_UPDATING = 6, // a job is running
};

// The fixed text of an UpdateError; "No Error" for ERROR_NO_FILE, whose text
// belongs to `test`, and for a code that does not exist.
const char *update_error_text(std::int32_t code);

} // namespace fwupdate
