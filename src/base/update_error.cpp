// SPDX-License-Identifier: ISC
#include "base/update_error.h"

namespace fwupdate
{

// Clients compare these texts, the misspelt one too.
const char *update_error_text(std::int32_t code)
{
	switch (code) {
	case ERROR_CHECK:
		return "Error on checking update avialability";
	case ERROR_DOWNLOAD:
		return "Error on getting firmware";
	case ERROR_IMAGE:
		return "Error on checking firmware";
	case ERROR_WRITE:
		return "Error on writing firmware";
	case ERROR_ALREADY_UPDATING:
		return "Already updating";
	default:
		return "No Error";
	}
}

} // namespace fwupdate
