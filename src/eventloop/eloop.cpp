// Timer event loop: one-shot timers ordered by expiry on the times() clock,
// a table of read sockets, and select as the sleep.
#include "eventloop/eloop.h"

#include <malloc.h>
#include <sys/select.h>
#include <sys/times.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/log.h"

eloop_data eloop;

namespace {

// Signed difference, so that ordering survives the wrap of the tick counter.
int32_t tick_diff(uint32_t a, uint32_t b)
{
    return static_cast<int32_t>(a - b);
}

// The rate used for conversions: a loop used before eloop_init has no rate,
// and the usual 100 ticks per second keeps its timers meaningful.
uint32_t effective_rate()
{
    return eloop.ticks_per_sec > 0 ? static_cast<uint32_t>(eloop.ticks_per_sec) : 100u;
}

}  // namespace

uint32_t eloop_now_ticks()
{
    struct tms t {};
    return static_cast<uint32_t>(times(&t));
}

void eloop_init(intptr_t user_ctx)
{
    {
        std::lock_guard<std::mutex> hold(eloop.lock);
        eloop.user_ctx = user_ctx;
        eloop.max_sock = 0;
        eloop.reader_count = 0;
        eloop.readers.clear();
        eloop.timers.clear();
        eloop.reader_table_changed = 0;
        eloop.ticks_per_sec = static_cast<int>(sysconf(_SC_CLK_TCK));
    }
    log_msg(1, log_lvl::info, "[ DORVAND ] ELOOP INIT DONE\n");
}

int eloop_add_timer(uint32_t secs, uint32_t usecs, eloop_timeout_handler handler, intptr_t ctx1, intptr_t ctx2)
{
    uint32_t expiry = eloop_now_ticks();
    if (eloop.ticks_per_sec == 0)
        log_msg(1, log_lvl::info, "[ DORVAND ]  Ticks Not Updated\n");
    uint32_t rate = effective_rate();
    expiry += secs * rate;
    expiry += usecs / (1000000u / rate);

    std::lock_guard<std::mutex> hold(eloop.lock);
    const eloop_timer* pos = eloop.timers.begin();
    while (pos != eloop.timers.end() && tick_diff(pos->expiry, expiry) <= 0)
        ++pos;
    return eloop.timers.insert(pos, eloop_timer{expiry, ctx1, ctx2, handler}) ? 0 : -1;
}

int eloop_cancel_timer(eloop_timeout_handler handler, intptr_t ctx1, intptr_t ctx2)
{
    std::lock_guard<std::mutex> hold(eloop.lock);
    int removed = 0;
    for (auto it = eloop.timers.begin(); it != eloop.timers.end();) {
        if (it->handler == handler && (ctx1 == ELOOP_ANY_CTX || it->ctx1 == ctx1) &&
            (ctx2 == ELOOP_ANY_CTX || it->ctx2 == ctx2)) {
            it = eloop.timers.erase(it);
            ++removed;
        } else {
            ++it;
        }
    }
    return removed;
}

int eloop_register_read_sock(int sock, eloop_sock_handler handler, intptr_t ctx1, intptr_t ctx2)
{
    if (sock < 0 || sock >= FD_SETSIZE)
        return -1;
    std::lock_guard<std::mutex> hold(eloop.lock);
    if (!eloop.readers.push_back(eloop_reader{sock, ctx1, ctx2, handler}))
        return -1;
    eloop.reader_count = static_cast<int>(eloop.readers.size());
    if (sock > eloop.max_sock)
        eloop.max_sock = sock;
    return 0;
}

void eloop_unregister_read_sock(int sock)
{
    std::lock_guard<std::mutex> hold(eloop.lock);
    for (auto it = eloop.readers.begin(); it != eloop.readers.end(); ++it) {
        if (it->sock == sock) {
            eloop.readers.erase(it);
            eloop.reader_count = static_cast<int>(eloop.readers.size());
            eloop.reader_table_changed = 1;
            return;
        }
    }
}

void eloop_run()
{
    for (;;) {
        fd_set rfds;
        FD_ZERO(&rfds);
        struct timeval tv {};
        bool have_timer;
        int nfds;
        {
            std::lock_guard<std::mutex> hold(eloop.lock);
            if (eloop.timers.empty() && eloop.reader_count < 1)
                return;
            have_timer = !eloop.timers.empty();
            if (have_timer) {
                int32_t remaining = tick_diff(eloop.timers.front().expiry, eloop_now_ticks());
                if (remaining < 0)
                    remaining = 0;
                uint32_t rate = effective_rate();
                tv.tv_sec = static_cast<uint32_t>(remaining) / rate;
                tv.tv_usec = static_cast<suseconds_t>((static_cast<uint32_t>(remaining) % rate) * (1000000u / rate));
            }
            for (const auto& r : eloop.readers)
                FD_SET(r.sock, &rfds);
            nfds = eloop.max_sock + 1;
        }

        int res = select(nfds, &rfds, nullptr, nullptr, have_timer ? &tv : nullptr);
        if (res < 0 && errno != EINTR) {
            perror("select");
            return;
        }

        eloop_timer due{};
        {
            std::lock_guard<std::mutex> hold(eloop.lock);
            if (!eloop.timers.empty() && tick_diff(eloop.timers.front().expiry, eloop_now_ticks()) <= 0) {
                due = eloop.timers.front();
                eloop.timers.erase(eloop.timers.begin());
            }
        }
        // Taken out before the call, so the handler may cancel and re-add
        // timers of its own kind.
        if (due.handler) {
            due.handler(due.ctx1, due.ctx2);
            // The handlers' bursts (a scan report's thousands of database
            // connections, a reload of the key holders) leave the heap full
            // of free pages between live blocks; hand them back to the
            // system rather than keep the busiest moment's size.
            malloc_trim(0);
        }

        if (res <= 0)
            continue;

        eloop.reader_table_changed = 0;
        for (size_t i = 0; i < eloop.readers.size() && !eloop.reader_table_changed; ++i) {
            eloop_reader r = eloop.readers[i];
            if (FD_ISSET(r.sock, &rfds))
                r.handler(r.sock, r.ctx1, r.ctx2);
        }
    }
}
