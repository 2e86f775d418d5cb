// host/fileio.h - files of the database: several operations at once, and blocking calls off the schedulers.
//
// Called by background user threads. What writes, reads or runs something yields until it is done.
#ifndef HOST_FILEIO_H
#define HOST_FILEIO_H

#include <cstdint>
#include <functional>
#include <string>

#include "base.h"

namespace host {

// Writes `size` bytes at `offset`, `step` of them in one operation, up to sixteen operations at once. The last error; 0
// when every byte was moved. The handle has FILE_FLAG_OVERLAPPED.
DWORD WriteBlocks(HANDLE file, uint64_t offset, const char *data, size_t size, size_t step);
// Reads up to `size` bytes at `offset`; *got is less at the end of the file. The last error, or 0.
DWORD ReadBlocks(HANDLE file, uint64_t offset, char *data, size_t size, size_t *got);
// A file of the database for the functions above, past the system's cache of writes with `writeThrough`.
// INVALID_HANDLE_VALUE with the last error.
HANDLE OpenForBlocks(const std::string &name, DWORD disposition, bool writeThrough);
// Runs a call that blocks its kernel thread on one of its own, so that the scheduler goes on meanwhile; on the calling
// one where no thread can be had. What the call returned.
DWORD RunBlocking(const std::function<DWORD()> &call);

std::string PathOf(const std::string &name);  // inside the folder of the database

}  // namespace host

#endif  // HOST_FILEIO_H
