#include "replicator/shared_send.h"

#include <sys/socket.h>

#include <algorithm>

#include "replicator/my_arq_send_cb.h"
#include "replicator/packet_pieces.h"
#include "replicator/send_mode.h"

int32_t CountSharing(const StreamTable::View& view, int32_t first)
{
    const int socket = view.At(first).SharedSocketKey();
    if (SENDS_ARE_PLAIN || socket < 0)
        return 1;
    int32_t end = first + 1;
    while (end < view.Count() && view.At(end).SharedSocketKey() == socket)
        ++end;
    return end - first;
}

int32_t SendShared(const StreamTable::View& view, int32_t first, int32_t count, const PacketBuffer& packet)
{
    PacketPieces pieces(packet);
    sockaddr_in addresses[StreamTable::MAX_STREAMS];
    mmsghdr messages[StreamTable::MAX_STREAMS];
    for (int32_t i = 0; i < count; ++i) {
        addresses[i] = view.At(first + i).Target().address;
        msghdr header {};
        header.msg_name = &addresses[i];
        header.msg_namelen = sizeof(addresses[i]);
        header.msg_iov = pieces.pieces;
        header.msg_iovlen = pieces.count;
        messages[i].msg_hdr = header;
    }
    MyArqSendCB& stream = view.At(first);
    const int sent
        = std::max(0, sendmmsg(stream.Target().fd, messages, static_cast<unsigned>(count), MSG_DONTWAIT));
    stream.CountSent(sent, static_cast<size_t>(sent) * pieces.Bytes());
    return sent;
}
