#include "support/private_tmp.h"

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>

void enter_private_tmp() {
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, "") != 0 ||
        mount("none", "/tmp", "tmpfs", 0, "mode=1777") != 0) {
        _exit(errno == EPERM ? no_right_to_mount : no_private_tmp);
    }
}
