// SPDX-License-Identifier: ISC
#include "base/records.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

using namespace fwupdate;

namespace
{

class Manifest : public testing::Test
{
protected:
	void TearDown() override
	{
		update_manifest = {};
	}

	static void fill(char *field, std::size_t size, char letter)
	{
		std::memset(field, letter, size);
	}
};

} // namespace

TEST(Records, EverythingIsZeroAtStart)
{
	// This test program changes the records only in tests that put them back.
	EXPECT_EQ(update_context.state, UpdateState::NONE);
	EXPECT_STREQ(update_context.message, "");
	EXPECT_EQ(update_context.result, 0);
	EXPECT_EQ(update_context.need_update, 0);
	EXPECT_STREQ(update_context.boot_partition, "");
	EXPECT_FALSE(update_context.job.active);
	EXPECT_FALSE(update_context.job.downloaded);
	EXPECT_FALSE(update_context.job.install);
	EXPECT_FALSE(update_context.job.force);
	EXPECT_EQ(update_context.job.progress.total, 0u);
	const UpdateManifest nothing = {};
	EXPECT_EQ(std::memcmp(&update_manifest, &nothing, sizeof(nothing)), 0);
}

TEST(Records, FieldsHaveTheirSizes)
{
	EXPECT_EQ(sizeof(update_context.message), 256u);
	EXPECT_EQ(sizeof(update_context.boot_partition), 32u);
	EXPECT_EQ(sizeof(UpdateManifest::file_name), 64u);
	EXPECT_EQ(sizeof(UpdateManifest::archive), 4u);
	EXPECT_EQ(sizeof(UpdateManifest::force_update), 4u);
	EXPECT_EQ(sizeof(UpdateManifest::release_notes), 512u);
	EXPECT_EQ(sizeof(UpdateManifest::version), 20u);
	EXPECT_EQ(sizeof(UpdateManifest::buildtime), 12u);
	EXPECT_EQ(sizeof(UpdateManifest::url), 256u);
	EXPECT_EQ(offsetof(ProgressRecord, total), 0u);
	EXPECT_EQ(offsetof(ProgressRecord, received), 4u);
	EXPECT_EQ(offsetof(ProgressRecord, status), 8u);
}

TEST_F(Manifest, ShortFieldEndsAtItsTerminator)
{
	std::strcpy(update_manifest.version, "1.0");
	std::strcpy(update_manifest.buildtime, "123");
	EXPECT_STREQ(manifest_text(update_manifest.version), "1.0");
}

TEST_F(Manifest, FullFieldRunsOnIntoTheNext)
{
	fill(update_manifest.version, sizeof(update_manifest.version), 'v');
	std::strcpy(update_manifest.buildtime, "123");
	EXPECT_EQ(manifest_text(update_manifest.version), std::string(20, 'v') + "123");

	fill(update_manifest.release_notes, sizeof(update_manifest.release_notes), 'n');
	EXPECT_EQ(manifest_text(update_manifest.release_notes),
		  std::string(512, 'n') + std::string(20, 'v') + "123");
}

TEST_F(Manifest, FullFileNameRunsOnIntoTheArchiveFlag)
{
	fill(update_manifest.file_name, sizeof(update_manifest.file_name), 'f');
	std::strcpy(update_manifest.archive, "1");
	EXPECT_EQ(manifest_text(update_manifest.file_name), std::string(64, 'f') + "1");
}

TEST_F(Manifest, FullUrlEndsWithTheRecord)
{
	fill(update_manifest.url, sizeof(update_manifest.url), 'u');
	EXPECT_EQ(manifest_text(update_manifest.url), std::string(256, 'u'));
}
