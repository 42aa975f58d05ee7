// The account of the run.
#include "work_account.h"

namespace vornix::platform {

WorkAccount& AccountOfRun() {
    static WorkAccount& account = *new WorkAccount;
    return account;
}

void EnterDiskWrite() {
    WorkAccount& account = AccountOfRun();
    if (!account.IsDiskWritten) {
        const std::lock_guard<std::timed_mutex> lock(account.Mutex);
        account.IsDiskWritten = true;
    }
}

void EnterDiskClose() {
    WorkAccount& account = AccountOfRun();
    const std::lock_guard<std::timed_mutex> lock(account.Mutex);
    account.Disk.clear();
    account.IsDiskWritten = false;
}

} // namespace vornix::platform
