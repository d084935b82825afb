#include "kernel_model/udp_message.h"

#include <netinet/udp.h>

#include <cerrno>
#include <cstring>

namespace kernel_model {

int UdpMessage::Read(const msghdr& header)
{
    destination.reset();
    choosesSource = false;
    segmentBytes = 0;
    bytes.clear();
    for (size_t i = 0; i < header.msg_iovlen; ++i) {
        const auto* start = static_cast<const uint8_t*>(header.msg_iov[i].iov_base);
        bytes.insert(bytes.end(), start, start + header.msg_iov[i].iov_len); // reads every byte of it
    }
    if (header.msg_name != nullptr && header.msg_namelen >= sizeof(sockaddr_in)) {
        destination.emplace();
        std::memcpy(&*destination, header.msg_name, sizeof(sockaddr_in));
    }
    const int error = ReadControl(header);
    if (bytes.size() > MOST_BYTES || header.msg_iovlen > MOST_IOVECS)
        return EMSGSIZE;
    if (header.msg_name != nullptr && (!destination || destination->sin_port == 0))
        return EINVAL;
    return destination && destination->sin_family != AF_INET ? EAFNOSUPPORT : error;
}

int UdpMessage::ReadControl(const msghdr& header)
{
    msghdr all = header; // the macros want one that is not const
    for (cmsghdr* control = CMSG_FIRSTHDR(&all); control != nullptr; control = CMSG_NXTHDR(&all, control)) {
        if (control->cmsg_level == SOL_UDP) {
            uint16_t size = 0;
            if (control->cmsg_type != UDP_SEGMENT || control->cmsg_len != CMSG_LEN(sizeof(size)))
                return EINVAL;
            std::memcpy(&size, CMSG_DATA(control), sizeof(size));
            segmentBytes = size;
        } else if (control->cmsg_level == IPPROTO_IP) {
            in_pktinfo info {};
            if (control->cmsg_type != IP_PKTINFO || control->cmsg_len != CMSG_LEN(sizeof(info)))
                return EINVAL;
            std::memcpy(&info, CMSG_DATA(control), sizeof(info));
            choosesSource = info.ipi_spec_dst.s_addr == 0;
        }
    }
    return 0;
}

int UdpMessage::JudgeTrain(size_t mtuBytes, int tooLongError, bool hasNoChecksums) const
{
    if (!IsTrain())
        return 0;
    if (segmentBytes + LOWER_HEADER_BYTES > mtuBytes)
        return tooLongError;
    return bytes.size() > segmentBytes * MOST_PIECES || hasNoChecksums ? EINVAL : 0;
}

} // namespace kernel_model
