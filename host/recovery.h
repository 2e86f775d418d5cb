// host/recovery.h - from the files to the keyspace.
#ifndef HOST_RECOVERY_H
#define HOST_RECOVERY_H

#include "checkpoint.h"
#include "log.h"

namespace host {

struct Recovered {
    uint64_t CheckpointKeys = 0;
    uint64_t Records = 0;   // of the log
    uint64_t CutBytes = 0;  // of a batch at the end that was not whole
    LogStart Log;
};

// Reads the checkpoint and the log of gOptions.Dir into the keyspace, on the calling user thread and the slaves "P000"
// to "P003". All that it returns is durable. Ends the process with a message that names file and offset when something
// is damaged, or cannot be made durable.
Recovered RecoverDatabase();

}  // namespace host

#endif  // HOST_RECOVERY_H
