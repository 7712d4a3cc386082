// SPDX-License-Identifier: ISC
//
// Decides whether a firmware file may be handed to the installer. Called by the
// update job on the downloaded image and by the `test` method on any path. Logs
// only fwtool's failures; its callers log the code that it returns.
#pragma once

namespace fwupdate
{

// Image-check codes; 0 is a good image.
enum ImageCheck : int {
	IMAGE_GOOD = 0,
	IMAGE_NOT_OPENED = -2,
	IMAGE_NOT_STATTED = -3,
	IMAGE_NOT_MAPPED = -4,
	IMAGE_BAD_MAGIC = -5,	 // no uImage, and no usable metadata either
	IMAGE_BAD_HEADER = -6,	 // a uImage whose header CRC is wrong
	IMAGE_BAD_CHECKSUM = -7, // its data CRC is wrong, or fwtool rejects the file
	IMAGE_TOO_BIG = -8,	 // never returned, a text only
	IMAGE_BAD_MODEL = -9,	 // made for another model
	IMAGE_NO_PARTITION = -10 // never returned, a text only
};

// Checks the file at `path`: a U-Boot legacy image by its header CRC and either its
// data CRC or fwtool, any other file by its fwtool metadata; both by the model.
// Returns an ImageCheck. Leaves the daemon's state at FIRMWARE_CHECK and the
// firmware's model in fw_model_name. Blocks for the CRC over the whole file.
int verify_image(const char *path);

// The text of a code, "Unknown" for any other number, 0 included.
const char *image_check_text(int code);

// 1 when the firmware's model text, less a custom ID in square brackets, is the
// device's product name; letter case does not count. At most 31 characters of
// either are read; `model` needs no terminator behind its 32nd byte. Else 0.
int model_matches(const char *model);

} // namespace fwupdate
