// The neighbour event socket: datagrams from the peer daemon applied to the
// known-AP tables, the key-holder list and the key-holder files.
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <utility>

#include "base/files.h"
#include "base/log.h"
#include "base/paths.h"
#include "board/board.h"
#include "neighbours/nb_internal.h"
#include "neighbours/neighbours.h"

namespace {

void log_mac(const uint8_t m[6])
{
    log_msg(0, log_lvl::info, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
}

// Every event type is refused for a radio without a table. KH_ADDITION does
// not touch the table, but its derivation depends on the radio, and a key
// holder derived for a radio the board does not have would be wrong.
// The pointer is read under ht_mutex because the exit clean-up clears it.
known_ap_table* event_table(uint8_t wlan)
{
    known_ap_table* table = nullptr;
    if (wlan < board().radio_count && wlan < 3) {
        std::lock_guard<std::timed_mutex> hold(neighbours().ht_mutex);
        table = neighbours().known_ap_tables[wlan];
    }
    if (!table)
        log_msg(0, log_lvl::error, "[dorvand] Event for wlan%d ignored: no such radio\n", wlan);
    return table;
}

void on_ap_addition(const neighbour_event& ev, known_ap_table* table)
{
    log_msg(0, log_lvl::info, "AP_ADDITION [wlan%d]\n", ev.wlan);
    log_mac(ev.mac);
    // The record's bytes from offset 6 are the attributes: the type byte (1)
    // marks the AP present, the wlan byte stands in for the channel until a
    // scan sets it.
    add_to_ht(table, ev.mac, ev.type, ev.family, ev.wlan, 0);
    traverse_hash_table(table, nb::radio_names[ev.wlan]);
}

void on_kh_addition(const neighbour_event& ev)
{
    uint8_t changed = 0;
    kh_candidate c{};
    std::memcpy(c.mac, ev.mac, sizeof c.mac);
    c.active = 1;
    c.family = ev.family;
    log_msg(0, log_lvl::info, "KH_ADDITION [wlan%d]\n", ev.wlan);
    kh_update update;
    add_to_kh_list(&c, ev.wlan, &changed, KH_MODE_DERIVE);
    write_key_holders("a");
    if (changed)
        run_ft_script();
}

void on_ap_deletion(const neighbour_event& ev, known_ap_table* table)
{
    log_msg(0, log_lvl::info, "AP_DELETION [wlan%d]\n", ev.wlan);
    log_mac(ev.mac);
    del_from_ht(table, ev.mac);
    traverse_hash_table(table, nb::radio_names[ev.wlan]);
    kh_update update;
    remove_key_holder(ev.mac);
    traverse_kh_list();
    write_key_holders("w");
    uint8_t mac[6];
    std::memcpy(mac, ev.mac, sizeof mac);
    key_change_on_deletion(ev.wlan, ev.family, mac);
    run_ft_script();
}

// The step of bind_event_socket that failed.
enum class bind_step { socket, bind, restrict };

// A datagram socket bound at /tmp/roam_sock (whatever stale file held the
// name goes first) and closed to all but root; -1 with errno set and
// `failed` naming the step. Does not log.
int bind_event_socket(bind_step& failed)
{
    failed = bind_step::socket;
    unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid())
        return -1;
    if (access(paths::event_socket, F_OK) == 0)
        unlink(paths::event_socket);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, paths::event_socket, 107);
    failed = bind_step::bind;
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0)
        return -1;
    // Only root may send events: the socket is closed to others whatever the
    // umask, and each datagram's sender is checked as well (receive_event),
    // so a later chmod opens nothing. /tmp is sticky, so nobody else can swap
    // the socket between the bind and the chmod.
    failed = bind_step::restrict;
    int one = 1;
    if (chmod(paths::event_socket, 0600) != 0 || setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &one, sizeof one) != 0)
        return -1;
    return fd.release();
}

// The socket this thread serves and the file its bind made at
// /tmp/roam_sock. When that path no longer names the socket (removed, or
// replaced by a file or another socket), no peer can reach it any more, and
// it is bound again.
struct served_socket {
    unique_fd fd;
    dev_t dev = 0;
    ino_t ino = 0;
    std::chrono::steady_clock::time_point checked;
    bool told = false;  // a failed bind of this incident has been reported
};

constexpr auto check_period = std::chrono::seconds(kh_files_retry_secs);

void remember_path(served_socket& s)
{
    struct stat st {};
    bool named = lstat(paths::event_socket, &st) == 0;
    s.dev = named ? st.st_dev : 0;
    s.ino = named ? st.st_ino : 0;
    s.checked = std::chrono::steady_clock::now();
}

bool names_socket(const served_socket& s)
{
    struct stat st {};
    return lstat(paths::event_socket, &st) == 0 && S_ISSOCK(st.st_mode) && st.st_dev == s.dev && st.st_ino == s.ino;
}

// Binds the socket again when its path no longer names it; not once the
// shutdown has removed it. A failure is reported once per incident and tried
// again at the next check.
void check_event_socket(served_socket& s)
{
    s.checked = std::chrono::steady_clock::now();
    if (names_socket(s))
        return;
    std::lock_guard<std::timed_mutex> hold(neighbours().event_socket_lock);
    if (neighbours().event_socket_closed)
        return;
    bind_step failed{};
    unique_fd fresh(bind_event_socket(failed));
    if (!fresh.valid()) {
        int err = errno;
        if (!std::exchange(s.told, true))
            log_msg(1, log_lvl::error,
                    "[dorvand] Event socket %s was removed or replaced and cannot be bound again [%d|%s]: tried again "
                    "every %d s\n",
                    paths::event_socket, err, strerror(err), kh_files_retry_secs);
        return;
    }
    // Nothing is queued on the old socket: it is checked only while idle.
    s.fd = std::move(fresh);
    remember_path(s);
    s.told = false;
    log_msg(1, log_lvl::error, "[dorvand] Event socket %s was removed or replaced: bound again\n", paths::event_socket);
}

bool datagram_queued(int fd)
{
    struct pollfd p {
        fd, POLLIN, 0
    };
    return poll(&p, 1, 0) != 0;
}

// Blocks until a datagram is waiting. Every kh_files_retry_secs of silence,
// key-holder files left stale by a failed write (on any thread) are written
// again and the socket's path is checked. Datagrams that keep coming faster
// than that have the path checked once the check is overdue, in a moment
// when none is queued.
void wait_for_event(served_socket& s)
{
    for (;;) {
        if (std::chrono::steady_clock::now() - s.checked >= check_period && !datagram_queued(s.fd.get()))
            check_event_socket(s);
        struct pollfd p {
            s.fd.get(), POLLIN, 0
        };
        int ready = poll(&p, 1, kh_files_retry_secs * 1000);
        if (ready != 0)
            return;  // a datagram, or an error the receive reports
        kh_files_retry();
        check_event_socket(s);
    }
}

// Receives one datagram into buf with its sender's uid ((uid_t)-1 when the
// kernel gave none). Returns the byte count as recv does.
ssize_t receive_event(int fd, std::array<uint8_t, sizeof(neighbour_event)>& buf, uid_t& sender)
{
    iovec iov{buf.data(), buf.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))] = {};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    sender = static_cast<uid_t>(-1);
    ssize_t n = recvmsg(fd, &msg, 0);
    if (n < 0)
        return n;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_CREDENTIALS && c->cmsg_len >= CMSG_LEN(sizeof(ucred))) {
            ucred cred{};
            std::memcpy(&cred, CMSG_DATA(c), sizeof cred);
            sender = cred.uid;
        }
    }
    return n;
}

}  // namespace

int open_event_socket()
{
    bind_step failed{};
    int fd = bind_event_socket(failed);
    if (fd >= 0)
        return fd;
    int err = errno;
    if (failed == bind_step::socket)
        log_msg(1, log_lvl::info, "socket creation failed[%d|%s]\n", err, strerror(err));
    else if (failed == bind_step::bind)
        log_msg(1, log_lvl::error, " Bind failed with return value [%d|%s]\n", err, strerror(err));
    else
        log_msg(1, log_lvl::error, "[dorvand] Event socket cannot be restricted to root [%d|%s]\n", err, strerror(err));
    errno = err;
    return -1;
}

void* event_socket_thread(void*)
{
    pthread_detach(pthread_self());
    log_msg(0, log_lvl::info, "create roam_sock \n");
    served_socket s;
    {
        // A shutdown that began before this first bind has removed the path
        // already: binding now would leave a socket behind the process.
        std::lock_guard<std::timed_mutex> hold(neighbours().event_socket_lock);
        if (neighbours().event_socket_closed)
            return nullptr;
        s.fd.reset(open_event_socket());
        if (!s.fd.valid()) {
            int err = errno;
            log_msg(1, log_lvl::info, "socket creation failed[%d|%s]\n", err, strerror(err));
            return nullptr;
        }
        remember_path(s);
    }
    for (;;) {
        std::array<uint8_t, sizeof(neighbour_event)> buf{};
        log_msg(0, log_lvl::info, "Waiting for events from  pxlmd\n");
        wait_for_event(s);
        uid_t sender = 0;
        ssize_t n = receive_event(s.fd.get(), buf, sender);
        if (n >= 0 && sender != 0) {
            log_msg(1, log_lvl::error, "[dorvand] Event from uid %ld dropped: only root may send events\n",
                    sender == static_cast<uid_t>(-1) ? -1L : static_cast<long>(sender));
            continue;
        }
        if (n <= 0) {
            log_msg(0, log_lvl::info, "no data \n");
            continue;
        }
        handle_neighbour_event(buf.data(), static_cast<size_t>(n));
    }
}

void close_event_socket_for_exit(std::chrono::seconds wait, void (*remove)(const char* path))
{
    std::unique_lock<std::timed_mutex> hold(neighbours().event_socket_lock, wait);
    neighbours().event_socket_closed = true;
    remove(paths::event_socket);
}

void remove_key_holder(const uint8_t mac[6])
{
    kh_entry* e = neighbours().kh_list.next;
    while (e != &neighbours().kh_list) {
        kh_entry* next = e->next;
        if (std::memcmp(e->mac, mac, 5) == 0) {
            log_msg(0, log_lvl::info, "Removing %02x:%02x:%02x:%02x:%02x:%02x\n", e->mac[0], e->mac[1], e->mac[2],
                    e->mac[3], e->mac[4], e->mac[5]);
            dlist_unlink(e);
            delete e;
        }
        e = next;
    }
}

neighbour_event decode_neighbour_event(const uint8_t* buf, size_t len)
{
    neighbour_event ev{};
    if (buf)
        std::memcpy(&ev, buf, std::min(len, sizeof ev));
    return ev;
}

void handle_neighbour_event(const uint8_t* buf, size_t len)
{
    const neighbour_event ev = decode_neighbour_event(buf, len);
    log_msg(0, log_lvl::info, "Event received [%d]\n", ev.type);
    if (ev.type != AP_ADDITION && ev.type != KH_ADDITION && ev.type != AP_DELETION) {
        log_msg(0, log_lvl::info, "default case \n");
        return;
    }
    known_ap_table* table = event_table(ev.wlan);
    if (!table)
        return;
    if (ev.type == AP_ADDITION)
        on_ap_addition(ev, table);
    else if (ev.type == KH_ADDITION)
        on_kh_addition(ev);
    else
        on_ap_deletion(ev, table);
}
