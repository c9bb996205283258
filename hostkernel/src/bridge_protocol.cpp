// Host kernel runtime, bridge area: framing of the bridge's messages.
#include "bridge_protocol.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

namespace hk {
namespace bridge {

bool SendMessage(int socket, Type type, uint32_t handle, uint32_t id, const void *part1,
                 size_t length1, const void *part2, size_t length2, int fd)
{
    Header header{static_cast<uint32_t>(length1 + length2), static_cast<uint16_t>(type), 0, handle, id};
    struct iovec parts[3] = {{&header, sizeof(header)},
                             {const_cast<void *>(part1), length1},
                             {const_cast<void *>(part2), length2}};
    struct msghdr message {};
    message.msg_iov = parts;
    message.msg_iovlen = 3;
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    if (fd >= 0) {
        memset(control, 0, sizeof(control));
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        struct cmsghdr *cmsg = CMSG_FIRSTHDR(&message);
        cmsg->cmsg_level = SOL_SOCKET;
        cmsg->cmsg_type = SCM_RIGHTS;
        cmsg->cmsg_len = CMSG_LEN(sizeof(int));
        memcpy(CMSG_DATA(cmsg), &fd, sizeof(int));
    }
    size_t total = sizeof(header) + length1 + length2;
    while (total > 0) {
        ssize_t sent = sendmsg(socket, &message, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        total -= static_cast<size_t>(sent);
        message.msg_control = nullptr; // the descriptor went with the first bytes
        message.msg_controllen = 0;
        size_t skip = static_cast<size_t>(sent);
        while (skip > 0 && message.msg_iovlen > 0) {
            struct iovec &first = message.msg_iov[0];
            size_t taken = skip < first.iov_len ? skip : first.iov_len;
            first.iov_base = static_cast<char *>(first.iov_base) + taken;
            first.iov_len -= taken;
            skip -= taken;
            if (first.iov_len == 0) {
                ++message.msg_iov;
                --message.msg_iovlen;
            }
        }
    }
    return true;
}

bool ReceiveExactly(int socket, void *buffer, size_t length, int *fd)
{
    if (fd != nullptr)
        *fd = -1;
    char *at = static_cast<char *>(buffer);
    while (length > 0) {
        struct iovec part = {at, length};
        struct msghdr message {};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        alignas(struct cmsghdr) char control[CMSG_SPACE(4 * sizeof(int))];
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        ssize_t got = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        for (struct cmsghdr *cmsg = CMSG_FIRSTHDR(&message); cmsg != nullptr;
             cmsg = CMSG_NXTHDR(&message, cmsg)) {
            if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS)
                continue;
            size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
            for (size_t i = 0; i < count; ++i) {
                int passed;
                memcpy(&passed, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(int));
                if (fd != nullptr && *fd < 0)
                    *fd = passed;
                else
                    close(passed);
            }
        }
        at += got;
        length -= static_cast<size_t>(got);
    }
    return true;
}

} // namespace bridge
} // namespace hk
