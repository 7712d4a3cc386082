// SPDX-License-Identifier: ISC
//
// The metadata that the build system appends to a firmware file: extracted with
// fwtool into "<path>.signature" and read with jsonfilter. Called by the image
// check for files that are no uImage. It compares nothing itself,
// and verifies no signature.
#pragma once

#include <cstddef>

namespace fwupdate
{

// Commands for fwtool and jsonfilter hold the path twice at most; a path that
// does not fit (over 112 bytes) is refused.
inline constexpr std::size_t VERIFY_COMMAND_SIZE = 256;
inline constexpr std::size_t MODEL_NAME_SIZE = 32;

// The firmware's model as the last image check found it: 31 characters and a
// terminator, or the 32 name bytes of a uImage, which may lack one. With a custom
// ID the text is MODEL[ID]. Written by the two checks, read by the model match.
extern char fw_model_name[MODEL_NAME_SIZE];

// Formats the command that extracts the metadata of the file. False when it does
// not fit: then it must not be run, as it is cut short.
bool format_fwtool_command(char (&command)[VERIFY_COMMAND_SIZE], const char *path);

// Deletes "<path>.signature". A name that does not fit its buffer is left alone.
void remove_metadata_file(const char *path);

// Reads the model from the metadata of the file into fw_model_name. Returns 0; -1 when fwtool
// could not be run (an over-long path included); -3 when it failed, mostly for
// want of metadata; -2 when no model is named, or model and custom ID together
// exceed 31 characters: in these two cases the metadata file stays.
int check_signature_model(const char *path);

} // namespace fwupdate
