#include "platform/instance_lock.h"

#include "platform/files.h"
#include "platform/run_time_error.h"
#include "tests/support/child_process.h"
#include "tests/support/temporary_folder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

namespace quenmark::platform {
namespace {

TEST(InstanceLock, OnePerExecutableAndStore) {
  const test::TemporaryFolder folder;
  const std::string store = folder.File("new/settings.db");
  std::optional<InstanceLock> lock = InstanceLock::TryAcquire("/bin/sh", store);
  ASSERT_TRUE(lock);
  for (const auto& entry : std::filesystem::directory_iterator(folder.File("new"))) {
    EXPECT_EQ(entry.status().permissions(), std::filesystem::perms(0600)) << entry;
  }
  SalvarArquivo(folder.File("file"), "");
  EXPECT_THROW(InstanceLock::TryAcquire("/bin/sh", folder.File("file/settings.db")), RunTimeError);
  EXPECT_FALSE(InstanceLock::TryAcquire("/bin/sh", store));
  EXPECT_TRUE(InstanceLock::TryAcquire("/bin/ls", store));
  EXPECT_TRUE(InstanceLock::TryAcquire("/bin/sh", folder.File("other.db")));
  std::filesystem::create_symlink("/bin/sh", folder.File("link"));
  std::filesystem::create_directory_symlink(folder.File("new"), folder.File("folder"));
  EXPECT_FALSE(InstanceLock::TryAcquire(folder.File("link"), folder.File("folder/settings.db")));
  const test::ChildProcess noHeir("sleep", {"60"});
  lock.reset();
  EXPECT_TRUE(InstanceLock::TryAcquire("/bin/sh", store));
}

}  // namespace
}  // namespace quenmark::platform
