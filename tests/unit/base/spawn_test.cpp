// Children of the daemon: their output is read whole however it arrives and
// kept up to the limit, and their status is their shell's.
#include <sys/wait.h>

#include <string>

#include "base/spawn.h"
#include "test_util.h"

namespace {

TEST(spawn, output_is_read_whole_and_kept_up_to_the_limit)
{
    std::string out;
    ASSERT_EQ(shell_read("printf a; sleep 0.1; printf bc; sleep 0.1; printf def", out), 0);
    EXPECT_EQ(out, "abcdef");
    ASSERT_EQ(shell_read("printf abcdef", out, 4), 0);
    EXPECT_EQ(out, "abcd");
    int status = shell_run(16, "exit %d", 3);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
}

}  // namespace
