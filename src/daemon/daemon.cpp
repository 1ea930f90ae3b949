// Start-up, threads, signals, pid file and the clean-up of the daemon. The
// ownership of state and the lock order are described in daemon/threads.h.
#include "daemon/daemon.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <mutex>

#include "base/coverage.h"
#include "base/files.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/spawn.h"
#include "board/board.h"
#include "configstore/dbcom.h"
#include "eventloop/eloop.h"
#include "ftstatus/ft_status.h"
#include "neighbours/neighbours.h"
#include "scan/scan.h"

namespace {

constexpr int exit_signal = 10;

// How long the clean-up waits for a lock before leaving what it guards to the
// end of the process. The configuration lock can be held for minutes by a
// refresh waiting on configd, so it gets the shortest wait.
constexpr auto cleanup_lock_wait = std::chrono::seconds(3);
constexpr auto cleanup_config_wait = std::chrono::seconds(1);

using thread_entry = void* (*)(void*);
constexpr thread_entry thread_table[] = {eloop_thread, event_socket_thread};

// Signal 10 writes one note to exit_pipe, read by the signal thread. SIGRTMIN
// ORs its value into ft_pending and writes one wake byte to ft_pipe, read by
// the fast-transition thread, which takes all pending bits at once: however
// many signals queue up, one update covers them, and a full pipe loses
// nothing because the bits stay in ft_pending. The two are kept apart so
// that an exit never waits behind an update that may wait minutes for
// configd.
struct signal_note {
    int32_t signo;
    int32_t value;
};
int exit_pipe[2] = {-1, -1};
int ft_pipe[2] = {-1, -1};

// Bit 32: an update is pending; bits 0..31: the OR of the pending values.
// One word, so the handler's bits and their pending mark are taken together.
std::atomic<uint64_t> ft_pending{0};
constexpr uint64_t ft_pending_mark = uint64_t{1} << 32;
static_assert(std::atomic<uint64_t>::is_always_lock_free, "the signal handler needs a lock-free word");

void exit_signal_handler(int signo)
{
    int saved = errno;
    signal_note note{signo, 0};
    [[maybe_unused]] ssize_t n = write(exit_pipe[1], &note, sizeof note);
    errno = saved;
}

void ft_status_signal_handler(int, siginfo_t* info, void*)
{
    int saved = errno;
    // With SA_SIGINFO the kernel always passes the information.
    auto value = static_cast<uint32_t>(info ? info->si_value.sival_int : 0);  // GCOVR_EXCL_BR_LINE: as above
    ft_pending.fetch_or(ft_pending_mark | value);
    const char wake = 1;
    // A full pipe already holds a wake-up for these bits.
    [[maybe_unused]] ssize_t n = write(ft_pipe[1], &wake, 1);
    errno = saved;
}

// Reads one whole note; false when the pipe is closed or broken.
bool read_signal_note(int fd, signal_note& note)
{
    for (;;) {
        ssize_t n = read(fd, &note, sizeof note);
        if (n < 0 && errno == EINTR)
            continue;
        return n == static_cast<ssize_t>(sizeof note);
    }
}

// The fast-transition thread: one update for all the SIGRTMIN values pending
// when it wakes. It keeps the daemon's signals blocked, like every thread
// but the signal thread.
void* ft_update_thread(void*)
{
    char wake[64];
    for (;;) {
        ssize_t n = read(ft_pipe[0], wake, sizeof wake);
        if (n < 0 && errno == EINTR)  // GCOVR_EXCL_BR_LINE: the daemon's signals are blocked in this thread
            continue;                 // GCOVR_EXCL_LINE: as above
        if (n <= 0)
            return nullptr;
        uint64_t pending = ft_pending.exchange(0);
        if (pending & ft_pending_mark)
            ft_status_update(SIGRTMIN, static_cast<int32_t>(static_cast<uint32_t>(pending)));
    }
}

// The daemon's own signals go to the signal thread only: every other thread
// keeps them blocked, so sleeps, selects and reads elsewhere are never cut
// short by them.
sigset_t daemon_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, exit_signal);
    sigaddset(&set, SIGRTMIN);
    if constexpr (coverage_build)
        sigaddset(&set, SIGTERM);
    return set;
}

bool open_signal_pipe(int (&fds)[2])
{
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    fcntl(fds[1], F_SETFL, fcntl(fds[1], F_GETFL) | O_NONBLOCK);
    return true;
}

bool setup_signal_pipes()
{
    return open_signal_pipe(exit_pipe) && open_signal_pipe(ft_pipe);
}

void remove_daemon_file(const char* path)
{
    if (unlink(path) != 0) {
        int err = errno;
        log_msg(1, log_lvl::error, "[dorvand] Failed to delete %s file ( %s| %d )\n", path, strerror(err), err);
    }
}

// What the clean-up managed to lock. The locks are taken in the process-wide
// order (configuration, key holders, tables), each with a bounded wait, so a
// thread that holds a higher one while it waits for a lower one (a scan match
// holds kh_lock and then takes ht_mutex) can finish and let go. None is ever
// released: a thread waiting for one must not run on freed state before the
// process ends.
struct cleanup_locks {
    bool config;
    bool key_holders;
    bool tables;
};

cleanup_locks take_cleanup_locks()
{
    cleanup_locks held{};
    held.config = ft_state().config_lock.try_lock_for(cleanup_config_wait);
    const neighbour_exit_locks neighbour_locks = lock_neighbours_for_exit(cleanup_lock_wait);
    held.key_holders = neighbour_locks.key_holders;
    held.tables = neighbour_locks.tables;
    return held;
}

void free_tables(bool locked)
{
    if (!locked) {
        log_msg(0, log_lvl::error, "[dorvand] known-AP tables busy; left to the end of the process\n");
        return;
    }
    free_known_ap_tables();
}

void free_key_holders(bool locked)
{
    if (!locked) {
        log_msg(0, log_lvl::error, "[dorvand] key-holder list busy; left to the end of the process\n");
        return;
    }
    free_kh_list();
}

void close_config_handle(bool locked)
{
    if (!locked) {
        log_msg(0, log_lvl::error, "[dorvand] configuration read in progress; handle left to the end of the process\n");
        return;
    }
    dbcom_close(ft_state().config_handle);
    ft_state().config_handle = nullptr;
}

// The event-socket thread binds the socket again when its path goes; once
// this has removed it, it stays removed.
void remove_event_socket()
{
    close_event_socket_for_exit(cleanup_lock_wait, remove_daemon_file);
}

// ---- One daemon at a time ----------------------------------------------------

// The pid file, open and write-locked for the life of the process: the lock
// is how a daemon started later sees that this one is alive, and it goes
// with the process however that ends. Nothing else in the process opens the
// pid file, since closing any descriptor of it would drop the lock.
unique_fd pid_file_lock;

struct flock whole_file(short type)
{
    struct flock l {};
    l.l_type = type;
    l.l_whence = SEEK_SET;
    return l;
}

// A live daemon's event socket takes a connection; one left by a dead daemon
// refuses it. Only root's own socket counts: a link or another user's socket
// planted at the name must not keep the daemon from starting.
bool event_socket_served()
{
    struct stat st {};
    if (lstat(paths::event_socket, &st) != 0 || !S_ISSOCK(st.st_mode) || st.st_uid != geteuid())
        return false;
    unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, paths::event_socket, sizeof addr.sun_path - 1);
    return fd.valid() && connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
}

// To the terminal that started this process and to syslog: the log file
// belongs to the daemon that runs.
void report_running_daemon(pid_t holder)
{
    char text[128];
    if (holder > 0)
        snprintf(text, sizeof text, "[dorvand] Another dorvand (pid %d) holds %s: not started\n",
                 static_cast<int>(holder), paths::pid_file);
    else
        snprintf(text, sizeof text, "[dorvand] Another dorvand serves %s: not started\n", paths::event_socket);
    fputs(text, stderr);
    syslog(LOG_ERR, "%s", text);
}

bool start_thread(thread_entry entry)
{
    pthread_t tid;
    int rc = pthread_create(&tid, nullptr, entry, nullptr);
    if (rc != 0)
        log_msg(1, log_lvl::error, "Failed to create the thread [%d | %s ]\n", rc, strerror(rc));
    return rc == 0;
}

[[noreturn]] void exit_without_signal(int signo)
{
    log_msg(0, log_lvl::error, "[dorvand]  Registering %d signal failed. Hence exiting the daemon\n", signo);
    exit(-1);
}

}  // namespace

bool other_daemon_running(pid_t* holder)
{
    *holder = 0;
    // Opened only to look: no link followed, nothing created, and a FIFO
    // planted at the name cannot hold the open up.
    unique_fd fd(open_checked(paths::pid_file, O_RDONLY | O_NONBLOCK, 0, nullptr));
    struct flock l = whole_file(F_WRLCK);
    if (fd.valid() && fcntl(fd.get(), F_GETLK, &l) == 0 && l.l_type != F_UNLCK) {
        *holder = l.l_pid;
        return true;
    }
    return event_socket_served();
}

int write_pid_file()
{
    // Truncated only once it is known to be the daemon's own file: a planted
    // link (or another's file) is refused before anything is written.
    unique_fd fd = open_owned(paths::pid_file, O_WRONLY | O_CREAT, 0200);
    if (!fd.valid())
        return -1;
    // Locked before anything is written, so of two daemons started together
    // only one writes. A file system without locks leaves the file unlocked,
    // as it always was.
    struct flock l = whole_file(F_WRLCK);
    if (fcntl(fd.get(), F_SETLK, &l) != 0 && (errno == EAGAIN || errno == EACCES))
        return PID_FILE_HELD;
    if (ftruncate(fd.get(), 0) != 0)
        return -1;
    fchmod(fd.get(), 0200);  // an older file may have had another mode
    char text[8] = {};
    snprintf(text, 7, "%d\n", static_cast<int>(getpid()));
    [[maybe_unused]] ssize_t n = write(fd.get(), text, sizeof text);
    log_msg(1, log_lvl::info, "[dorvand] daemon_pid = %d | %s \n", static_cast<int>(getpid()), text);
    pid_file_lock = std::move(fd);
    return 0;
}

void init_tables()
{
    for (int r = 0; r < board().radio_count && r < 3; ++r) {
        // Events and scans for this radio are then refused as for a radio
        // the board does not have; the daemon runs on.
        // GCOVR_EXCL_START: a small nothrow allocation, never refused under overcommit
        if (!create_known_ap_table(r))
            log_msg(1, log_lvl::error, "[dorvand] No memory for the known-AP table of wlan%d\n", r);
        // GCOVR_EXCL_STOP
    }
    init_kh_list();
}

void register_exit_signal(struct sigaction* action, int signo, void (*handler)(int))
{
    if (!action)  // GCOVR_EXCL_BR_LINE: every caller passes a record of its own
        return;   // GCOVR_EXCL_LINE: as above
    *action = {};
    action->sa_handler = handler;
    sigemptyset(&action->sa_mask);
    if (sigaction(signo, action, nullptr) != 0)
        exit_without_signal(signo);
}

void register_info_signal(struct sigaction* action, int signo, void (*handler)(int, siginfo_t*, void*))
{
    *action = {};
    sigemptyset(&action->sa_mask);
    action->sa_flags = SA_SIGINFO;
    action->sa_sigaction = handler;
    if (sigaction(signo, action, nullptr) != 0)
        log_msg(0, log_lvl::error, " Registering %d signal failed\n", signo);
}

void exit_handler(int)
{
    remove_daemon_file(paths::pid_file);
    remove_event_socket();
    // The key-holder file goes once no thread can append to it again: with
    // kh_lock held (each append is made under it).
    const cleanup_locks held = take_cleanup_locks();
    remove_daemon_file(paths::key_holders);
    shell_kill_all();
    remove_scan_markers();
    free_tables(held.tables);
    free_key_holders(held.key_holders);
    stop_scan_scheduler();
    close_config_handle(held.config);
    log_msg(0, log_lvl::info, "[dorvand] Exiting from daemon\n");
    // The other threads are still running: end without static destructors.
    DORV_FLUSH_COVERAGE();
    _exit(0);  // GCOVR_EXCL_LINE: runs after the counters are written
}

void setup_signals()
{
    sigset_t set = daemon_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);  // inherited by every thread made later
    if (!setup_signal_pipes())
        log_msg(1, log_lvl::error, "[dorvand] Signal pipe failed [%d|%s]\n", errno, strerror(errno));
    static struct sigaction exit_action = {};
    static struct sigaction info_action = {};
    register_exit_signal(&exit_action, exit_signal, exit_signal_handler);
    register_info_signal(&info_action, SIGRTMIN, ft_status_signal_handler);
    if constexpr (coverage_build) {
        static struct sigaction term_action = {};
        register_exit_signal(&term_action, SIGTERM, exit_signal_handler);
    }
    // Signal 10 is served by the signal thread through its pipe: without
    // either the daemon could never be stopped cleanly, as without its handler.
    if (exit_pipe[0] < 0 || !start_thread(signal_thread))
        exit_without_signal(exit_signal);
    start_thread(ft_update_thread);
}

void* eloop_thread(void*)
{
    set_scan_startup_work(refresh_ft_status);
    eloop_add_timer(3, 0, start_scan_scheduler, 0, 0);
    eloop_run();
    return nullptr;
}

void* signal_thread(void*)
{
    sigset_t set = daemon_signals();
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    signal_note note{};
    while (read_signal_note(exit_pipe[0], note)) {
        // Only a coverage build takes SIGTERM: it ends at once, as the
        // default action would, but with its counters written.
        if (coverage_build && note.signo == SIGTERM) {
            DORV_FLUSH_COVERAGE();
            _exit(coverage_term_status);  // GCOVR_EXCL_LINE: runs after the counters are written
        }
        exit_handler(note.signo);
    }
    return nullptr;  // GCOVR_EXCL_LINE: the thread starts only with the pipe open, and nothing closes it
}

int daemon_main()
{
    // Files and sockets the daemon creates are never writable by others,
    // whatever umask it was started with.
    umask(022);
    // A second daemon would take the files and the event socket of the
    // first: it leaves before it changes anything.
    pid_t holder = 0;
    if (other_daemon_running(&holder)) {
        report_running_daemon(holder);
        return 1;
    }
    log_init(8, 0x80000, 2, paths::log_file);
    eloop_init(0);
    board_load();
    ft_state().config_handle = dbcom_init(paths::configd_get_socket, paths::configd_set_socket, DBCOM_UNIX_STREAM);
    // GCOVR_EXCL_START: with unix stream sockets at fixed paths the handle is always made
    if (!ft_state().config_handle)
        log_msg(1, log_lvl::error, "db handler initialisation  error \n");
    // GCOVR_EXCL_STOP
    log_msg(1, log_lvl::info, "[dorvand] radio_type = %s | product_id = %s\n",
            board().radio_type_val != 0 ? "Tri Radio" : "Dual Radio", board().product_id);

    if (daemon(0, 0) != 0) {
        log_msg(0, log_lvl::error, "[dorvand] Daemonizing process failed\n");
        dbcom_close(ft_state().config_handle);
        return 1;
    }
    // A peer that went away must show up as EPIPE, never end the process.
    signal(SIGPIPE, SIG_IGN);

    int pid_rc = write_pid_file();
    if (pid_rc == PID_FILE_HELD) {
        // Started together with another daemon, which locked the file first.
        log_msg(1, log_lvl::error, "[dorvand] Another dorvand took %s first: exiting\n", paths::pid_file);
        dbcom_close(ft_state().config_handle);
        return 1;
    }
    if (pid_rc != 0) {
        int err = errno;
        log_msg(0, log_lvl::error, "[dorvand] \n Failed to open the pid file \"(%s)\" [ Reason = %s(%d)]",
                paths::pid_file, strerror(err), err);
    }
    remove_stale_scan_markers();
    init_tables();

    setup_signals();

    log_msg(0, log_lvl::error, "[dorvand] invoke_threads()\n");
    pthread_t tids[std::size(thread_table)] = {};
    bool created[std::size(thread_table)] = {};
    for (size_t i = 0; i < std::size(thread_table); ++i) {
        int rc = pthread_create(&tids[i], nullptr, thread_table[i], nullptr);
        created[i] = rc == 0;
        if (rc != 0)
            log_msg(1, log_lvl::error, "Failed to create the thread [%d | %s ]\n", rc, strerror(rc));
    }
    // Joining an id that was never filled in is undefined; a missing
    // event-loop thread is reported as a failed join instead.
    int rc = created[0] ? pthread_join(tids[0], nullptr) : ESRCH;
    if (rc != 0)
        log_msg(0, log_lvl::error, "[dorvand] pthread_join failed[%d|%s] \n", rc, strerror(rc));
    else
        log_msg(0, log_lvl::error, "[dorvand] eloop_thread join successfully\n");
    log_msg(0, log_lvl::error, "daemon exited\n");
    return 0;
}
