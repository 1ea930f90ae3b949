// File helpers shared by the modules.
#include "base/files.h"

#include <cstring>
#include <string>

file_ptr open_file(const char* path, const char* mode)
{
    std::string m(mode);
    m += 'e';
    return file_ptr(fopen(path, m.c_str()));
}

bool file_exists(const char* path)
{
    return access(path, F_OK) == 0;
}

int touch_marker(const char* path)
{
    file_ptr f = open_file(path, "a");
    return f ? 0 : -1;
}
