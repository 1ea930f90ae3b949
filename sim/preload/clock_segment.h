// The event clock's shared segment: one file (DORVSIM_CLOCK) mapped by every
// process of a sandbox or a deployment and by the supervisor that advances
// it (sim/simclock.py reads and writes the same layout). Little-endian,
// natural alignment; the offsets are part of the format.
//
//   header (64 bytes)
//     0  u32 magic "DVCK"          4  u32 version (1)
//     8  u32 seq: odd while the supervisor writes now/offset
//    12  u32 kick signal number
//    16  i64 now_ns: simulated monotonic clock
//    24  i64 wall_offset_ns: the wall clock is now_ns + wall_offset_ns
//    32  u64 waits: waits begun, for the report
//    40  u32 proc slots, 44 u32 wait slots
//    48  i64 heartbeat: the supervisor's real monotonic clock at its last look
//   procs: proc slots x { i32 pid, i32 unused }: the processes that run
//     under the clock; a slot is taken with a compare-and-swap of pid 0 -> pid
//     and freed by the supervisor once the process is gone
//   waits: wait slots x 48 bytes { i32 tid, i32 pid, i64 deadline_ns,
//     i32 wall (1: the deadline follows the wall clock), i32 unused,
//     char call[24] }: a thread in a timed wait, taken with a
//     compare-and-swap of tid 0 -> tid and freed by the thread when it leaves
#pragma once

#include <atomic>
#include <cstdint>

namespace dorvsim::seg {

constexpr uint32_t magic = 0x4b435644;  // "DVCK"
constexpr uint32_t version = 1;
constexpr uint32_t proc_slots = 1024;
constexpr uint32_t wait_slots = 2048;

struct header {
    uint32_t magic;
    uint32_t version;
    std::atomic<uint32_t> seq;
    uint32_t kick_signal;
    std::atomic<int64_t> now_ns;
    std::atomic<int64_t> wall_offset_ns;
    std::atomic<uint64_t> waits;
    uint32_t nprocs;
    uint32_t nwaits;
    std::atomic<int64_t> heartbeat_ns;
    uint8_t unused[8];
};
static_assert(sizeof(header) == 64);

struct proc_slot {
    std::atomic<int32_t> pid;
    int32_t unused;
};
static_assert(sizeof(proc_slot) == 8);

struct wait_slot {
    std::atomic<int32_t> tid;
    std::atomic<int32_t> pid;
    std::atomic<int64_t> deadline_ns;
    std::atomic<int32_t> wall;
    int32_t unused;
    char call[24];
};
static_assert(sizeof(wait_slot) == 48);

constexpr size_t procs_offset = sizeof(header);
constexpr size_t waits_offset = procs_offset + proc_slots * sizeof(proc_slot);
constexpr size_t size = waits_offset + wait_slots * sizeof(wait_slot);

}  // namespace dorvsim::seg
