// Timer order, the tick counter's wrap, and readers.
#include <unistd.h>

#include <climits>
#include <string>
#include <vector>

#include "eventloop/eloop.h"
#include "test_util.h"

namespace {

std::vector<std::string> fired;

void record_a(intptr_t c1, intptr_t c2)
{
    fired.push_back("a" + std::to_string(c1) + ":" + std::to_string(c2));
}

void record_b(intptr_t c1, intptr_t)
{
    fired.push_back("b" + std::to_string(c1));
}

// Reads its byte and leaves the loop, so the loop ends with its last reader.
void reader(int sock, intptr_t ctx1, intptr_t)
{
    char byte;
    if (read(sock, &byte, 1) == 1)
        fired.push_back("r" + std::to_string(ctx1));
    eloop_unregister_read_sock(sock);
}

class eloop_test : public sandbox_test {
protected:
    void SetUp() override
    {
        sandbox_test::SetUp();
        eloop_init(0);
        fired.clear();
    }
};

// Expiry order first, registration order within a tick; 9,999 microseconds
// is less than one tick at 100 ticks per second, so b7 (added before b3)
// shares b3's tick and runs first. The loop ends when no timer is left.
TEST_F(eloop_test, ExpiryThenRegistrationOrderThenLoopEnds)
{
    eloop_add_timer(0, 30000, record_b, 2, 0);
    eloop_add_timer(0, 20000, record_a, 1, 0);
    eloop_add_timer(0, 9999, record_b, 7, 0);
    eloop_add_timer(0, 20000, record_a, 2, 0);
    eloop_add_timer(0, 0, record_b, 3, 0);
    eloop_run();
    EXPECT_EQ(fired, (std::vector<std::string>{"b7", "b3", "a1:0", "a2:0", "b2"}));
    EXPECT_TRUE(eloop.timers.empty());
}

TEST_F(eloop_test, TimerOverdueWhenTheLoopStartsRunsAtOnce)
{
    eloop_add_timer(0, 0, record_b, 1, 0);
    usleep(30000);
    eloop_run();
    EXPECT_EQ(fired, std::vector<std::string>{"b1"});
}

TEST_F(eloop_test, OrderSurvivesTickCounterWrap)
{
    // Two expiries either side of the 32-bit wrap: the one before the wrap is
    // numerically larger yet due first.
    uint32_t now = eloop_now_ticks();
    uint32_t rate = static_cast<uint32_t>(eloop.ticks_per_sec);
    uint32_t before_wrap = (UINT32_MAX - now) / rate;
    eloop_add_timer(before_wrap + 2, 0, record_b, 2, 0);
    eloop_add_timer(before_wrap, 0, record_b, 1, 0);
    ASSERT_EQ(eloop.timers.size(), 2u);
    EXPECT_GT(eloop.timers.front().expiry, eloop.timers.back().expiry) << "the later timer wrapped past zero";
    EXPECT_EQ(eloop.timers.front().ctx1, 1);
    EXPECT_EQ(eloop.timers.back().ctx1, 2);
}

TEST_F(eloop_test, UnregisteredReaderIsNotCalledTheOthersAre)
{
    int a[2];
    int b[2];
    ASSERT_EQ(pipe(a), 0);
    ASSERT_EQ(pipe(b), 0);
    eloop_register_read_sock(b[0], reader, 2, 0);
    eloop_register_read_sock(a[0], reader, 1, 0);
    eloop_unregister_read_sock(a[0]);
    ASSERT_EQ(write(a[1], "x", 1), 1);
    ASSERT_EQ(write(b[1], "x", 1), 1);
    eloop_run();
    EXPECT_EQ(fired, std::vector<std::string>{"r2"});
    for (int fd : {a[0], a[1], b[0], b[1]})
        close(fd);
}

}  // namespace
