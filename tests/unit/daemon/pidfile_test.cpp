// The pid file: 8 bytes, NUL-padded, mode 0200, truncating an older file.
#include <sys/stat.h>
#include <unistd.h>

#include "daemon/daemon.h"
#include "test_util.h"

namespace {

TEST_F(sandbox_test, PidFileHoldsPidNewlineAndNulPadding)
{
    testutil::write_file("/tmp/dorvand.pid", "1234567890123\n", 0644);
    ASSERT_EQ(write_pid_file(), 0);
    std::vector<unsigned char> bytes = testutil::read_bytes("/tmp/dorvand.pid");
    std::string pid = std::to_string(getpid()) + "\n";
    ASSERT_EQ(bytes.size(), 8u);
    EXPECT_EQ(std::string(bytes.begin(), bytes.begin() + static_cast<long>(pid.size())), pid);
    for (size_t i = pid.size(); i < 8; ++i)
        EXPECT_EQ(bytes[i], 0) << "byte " << i;
    struct stat st {};
    ASSERT_EQ(stat("/tmp/dorvand.pid", &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0200u);
    EXPECT_EQ(testutil::log_count("[dorvand] daemon_pid = " + std::to_string(getpid()) + " | "), 1);
}

}  // namespace
