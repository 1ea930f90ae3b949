// Client of the configuration daemon configd: handle, get operation, and the
// message and transaction layers underneath.
//
// Not re-entrant: transactions share process-wide buffers, so at most one
// call may run at a time in the whole process (the daemon serialises its
// callers with config_lock, see daemon/threads.h).
#pragma once

#include <optional>
#include <string>

struct dbcom_handle;

inline constexpr int DBCOM_UNIX_STREAM = 1;
inline constexpr int DBCOM_UNIX_DGRAM = 2;
inline constexpr int DBCOM_INET_STREAM = 3;
inline constexpr int DBCOM_INET_DGRAM = 4;

// A handle for the given servers (null names take the defaults
// "/tmp/confd_get" and "/tmp/confd_set" for the unix transports). No channel
// is opened yet. Null on failure.
dbcom_handle* dbcom_init(const char* get_server, const char* set_server, int transport);

// Reads one key. Returns 0 or 1. `value` gets the unescaped value (nothing
// when the key has no value or the read failed); `error` the diagnostic texts
// of the attempts (nothing after a read that gave a value).
int dbcom_get(dbcom_handle* handle, const char* key, std::optional<std::string>* value,
              std::optional<std::string>* error);

// Closes both channels and frees the handle. Accepts null. Returns 0.
int dbcom_close(dbcom_handle* handle);
