// The neighbour event socket: datagrams from the peer daemon applied to the
// known-AP tables, the key-holder list and the key-holder files.
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <mutex>

#include "base/files.h"
#include "base/log.h"
#include "base/paths.h"
#include "board/board.h"
#include "neighbours/neighbours.h"
#include "neighbours/nb_internal.h"

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

// Blocks until a datagram is waiting. Key-holder files left stale by a
// failed write (on any thread) are written again every kh_files_retry_secs
// meanwhile.
void wait_for_event(int fd)
{
    for (;;) {
        struct pollfd p {fd, POLLIN, 0};
        int ready = poll(&p, 1, kh_files_retry_secs * 1000);
        if (ready != 0)
            return;  // a datagram, or an error the receive reports
        kh_files_retry();
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
    unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        int err = errno;
        log_msg(1, log_lvl::info, "socket creation failed[%d|%s]\n", err, strerror(err));
        errno = err;
        return -1;
    }
    if (access(paths::event_socket, F_OK) == 0)
        unlink(paths::event_socket);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, paths::event_socket, 107);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        int err = errno;
        log_msg(1, log_lvl::error, " Bind failed with return value [%d|%s]\n", err, strerror(err));
        fd.reset();
        errno = err;
        return -1;
    }
    // Only root may send events: the socket is closed to others whatever the
    // umask, and each datagram's sender is checked as well (receive_event),
    // so a later chmod opens nothing. /tmp is sticky, so nobody else can swap
    // the socket between the bind and the chmod.
    int one = 1;
    if (chmod(paths::event_socket, 0600) != 0 ||
        setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &one, sizeof one) != 0) {
        int err = errno;
        log_msg(1, log_lvl::error, "[dorvand] Event socket cannot be restricted to root [%d|%s]\n", err, strerror(err));
        errno = err;
        return -1;
    }
    return fd.release();
}

void* event_socket_thread(void*)
{
    pthread_detach(pthread_self());
    log_msg(0, log_lvl::info, "create roam_sock \n");
    unique_fd fd(open_event_socket());
    if (!fd.valid()) {
        int err = errno;
        log_msg(1, log_lvl::info, "socket creation failed[%d|%s]\n", err, strerror(err));
        return nullptr;
    }
    for (;;) {
        std::array<uint8_t, sizeof(neighbour_event)> buf{};
        log_msg(0, log_lvl::info, "Waiting for events from  pxlmd\n");
        wait_for_event(fd.get());
        uid_t sender = 0;
        ssize_t n = receive_event(fd.get(), buf, sender);
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
