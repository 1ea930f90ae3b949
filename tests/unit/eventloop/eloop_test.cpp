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
    // Two pipes, each with a byte waiting: [0] and [2] are the read ends.
    void ready_pipes()
    {
        ASSERT_EQ(pipe(fds_), 0);
        ASSERT_EQ(pipe(fds_ + 2), 0);
        ASSERT_EQ(write(fds_[1], "x", 1), 1);
        ASSERT_EQ(write(fds_[3], "x", 1), 1);
    }
    void TearDown() override
    {
        for (int fd : fds_)
            if (fd >= 0)
                close(fd);
    }
    int fds_[4] = {-1, -1, -1, -1};
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

    // Many more than the table first has room for, added latest first.
    std::vector<std::string> want;
    for (int tick = 20; tick > 0; --tick)
        eloop_add_timer(0, 10000 * tick, record_b, tick, 0);
    for (int tick = 1; tick <= 20; ++tick)
        want.push_back("b" + std::to_string(tick));
    fired.clear();
    eloop_run();
    EXPECT_EQ(fired, want);
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

// Seconds and microseconds in ticks; a loop used before eloop_init says so
// and counts 100 ticks a second.
TEST_F(eloop_test, TimerDelayInTicksEvenBeforeInit)
{
    for (int rate : {static_cast<int>(eloop.ticks_per_sec), 0}) {
        SCOPED_TRACE(rate);
        eloop_init(0);
        eloop.ticks_per_sec = rate;
        uint32_t before = eloop_now_ticks();
        eloop_add_timer(2, 509999, record_b, 1, 0);
        uint32_t after = eloop_now_ticks();
        ASSERT_EQ(eloop.timers.size(), 1u);
        EXPECT_GE(eloop.timers.front().expiry - before, 250u);
        EXPECT_LE(eloop.timers.front().expiry - after, 250u);
        EXPECT_EQ(testutil::log_count("[ DORVAND ]  Ticks Not Updated\n"), rate ? 0 : 1);
    }
}

TEST_F(eloop_test, CancelRemovesOnlyTimersWhoseHandlerAndContextsMatch)
{
    struct cancel_case {
        eloop_timeout_handler handler;
        intptr_t ctx1, ctx2;
        int removed;
        std::vector<std::string> left;
    };
    const cancel_case cases[] = {
        {record_a, ELOOP_ANY_CTX, ELOOP_ANY_CTX, 3, {"b1"}}, {record_a, 1, ELOOP_ANY_CTX, 2, {"a2:1", "b1"}},
        {record_a, ELOOP_ANY_CTX, 1, 2, {"a1:2", "b1"}},     {record_a, 1, 2, 1, {"a1:1", "a2:1", "b1"}},
        {record_a, 2, 2, 0, {"a1:1", "a1:2", "a2:1", "b1"}}, {record_b, 1, 0, 0, {"a1:1", "a1:2", "a2:1", "b1"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("cancel " + std::to_string(c.ctx1) + ", " + std::to_string(c.ctx2));
        eloop_init(0);
        fired.clear();
        eloop_add_timer(0, 0, record_a, 1, 1);
        eloop_add_timer(0, 0, record_a, 1, 2);
        eloop_add_timer(0, 0, record_a, 2, 1);
        eloop_add_timer(0, 0, record_b, 1, 1);
        EXPECT_EQ(eloop_cancel_timer(c.handler, c.ctx1, c.ctx2), c.removed);
        eloop_run();
        EXPECT_EQ(fired, c.left);
    }
}

TEST_F(eloop_test, SocketOutsideTheSelectSetIsRefused)
{
    EXPECT_EQ(eloop_register_read_sock(-1, reader, 1, 0), -1);
    EXPECT_EQ(eloop_register_read_sock(FD_SETSIZE, reader, 2, 0), -1);
    EXPECT_TRUE(eloop.readers.empty());
    eloop_unregister_read_sock(5);  // not registered: nothing to remove
    EXPECT_EQ(eloop.reader_count, 0);
}

TEST_F(eloop_test, UnregisteredReaderIsNotCalledAndTheOtherIs)
{
    ready_pipes();
    eloop_register_read_sock(fds_[0], reader, 1, 0);
    eloop_register_read_sock(fds_[2], reader, 2, 0);
    eloop_unregister_read_sock(fds_[0]);
    eloop_run();
    EXPECT_EQ(fired, std::vector<std::string>{"r2"});
}

// A handler that unregisters another reader that is ready in the same pass:
// the removed one is never called (the pass must not go on from the table as
// it was before the handler ran).
TEST_F(eloop_test, ReaderRemovedByAnotherHandlerIsNotCalled)
{
    static int victim = -1;
    auto remover = [](int sock, intptr_t ctx1, intptr_t) {
        char byte;
        if (read(sock, &byte, 1) == 1)
            fired.push_back("r" + std::to_string(ctx1));
        eloop_unregister_read_sock(victim);
        eloop_unregister_read_sock(sock);
    };
    ready_pipes();
    victim = fds_[0];  // registered after a higher descriptor
    eloop_register_read_sock(fds_[2], remover, 1, 0);
    eloop_register_read_sock(fds_[0], reader, 2, 0);
    eloop_run();
    EXPECT_EQ(fired, std::vector<std::string>{"r1"});
}

// A reader whose socket was closed behind the loop's back makes select fail:
// the loop ends instead of spinning, and a pending timer does not run.
TEST_F(eloop_test, ClosedReaderSocketEndsTheLoop)
{
    int p[2];
    ASSERT_EQ(pipe(p), 0);
    eloop_register_read_sock(p[0], reader, 1, 0);
    close(p[0]);
    close(p[1]);
    eloop_add_timer(0, 0, record_b, 1, 0);
    eloop_run();
    EXPECT_TRUE(fired.empty());
    EXPECT_EQ(eloop.timers.size(), 1u);
    eloop_unregister_read_sock(p[0]);
}

}  // namespace
