// SPDX-License-Identifier: ISC
#include "verify/metadata.h"

#include <cstdio>
#include <cstring>

#include "base/log.h"
#include "base/shell.h"
#include "base/text.h"

namespace fwupdate
{

namespace
{

constexpr std::size_t CUSTOMID_SIZE = 8;
constexpr std::size_t METADATA_NAME_SIZE = 128;

int extract_metadata(const char *path)
{
	char command[VERIFY_COMMAND_SIZE];
	const bool fits = format_fwtool_command(command, path);
	const CommandResult result = fits ? run_command(command) : CommandResult::NOT_RUN;
	if (result == CommandResult::NOT_RUN) {
		log_message("Error checking firmware via fwtools: \"%s\"\n", command);
		return -1;
	}
	if (result == CommandResult::FAILED) {
		remove_metadata_file(path);
		return -3;
	}
	return 0;
}

void read_customid(const char *path, char (&customid)[CUSTOMID_SIZE])
{
	char command[VERIFY_COMMAND_SIZE];
	format_text(command, sizeof(command),
		    "jsonfilter -i %s.signature -e '@.version.customid' | tr -d '\" \r\n'", path);
	run_probe(command, customid, sizeof(customid), "Error on reading customid\n");
}

// Several supported devices arrive as one text, joined by commas, and are kept so.
void read_model(const char *path)
{
	char command[VERIFY_COMMAND_SIZE];
	format_text(command, sizeof(command),
		    "jsonfilter -i %s.signature -e '@[\"supported_devices\"]' | tr -d '\"[] \r\n'",
		    path);
	run_probe(command, fw_model_name, sizeof(fw_model_name),
		  "Error on reading fw_model_name\n");
}

bool append_customid(const char *customid)
{
	const std::size_t model_length = std::strlen(fw_model_name);
	if (std::strlen(customid) + 2 + model_length >= MODEL_NAME_SIZE) {
		log_message("Model name and Custom ID oversized! (%s[%s])\n", fw_model_name,
			    customid);
		return false;
	}
	std::snprintf(fw_model_name + model_length, MODEL_NAME_SIZE - model_length, "[%s]",
		      customid);
	return true;
}

} // namespace

char fw_model_name[MODEL_NAME_SIZE];

bool format_fwtool_command(char (&command)[VERIFY_COMMAND_SIZE], const char *path)
{
	return format_text(command, sizeof(command), "/usr/bin/fwtool -i %s.signature %s", path,
			   path);
}

void remove_metadata_file(const char *path)
{
	char name[METADATA_NAME_SIZE] = {};
	if (format_text(name, sizeof(name), "%s.signature", path)) {
		std::remove(name);
	}
}

int check_signature_model(const char *path)
{
	char customid[CUSTOMID_SIZE];

	const int extracted = extract_metadata(path);
	if (extracted != 0) {
		return extracted;
	}
	read_customid(path, customid);
	read_model(path);
	if (fw_model_name[0] == '\0') {
		log_message("Error on reading model via fwtool\n");
		return -2;
	}
	if (customid[0] != '\0' && !append_customid(customid)) {
		return -2;
	}
	remove_metadata_file(path);
	return 0;
}

} // namespace fwupdate
