#pragma once

#include <cerrno>
#include <cstdint>

#include "kernel_model/socket_kernel.h"

// What the kernel refuses next, drawn from a byte of the input: how many messages, behind how many that it takes, of
// which kind and why.
class Refusals {
public:
    Refusals() = default;
    explicit Refusals(uint8_t plan)
        : m_nCount(plan & 7),
          m_kind(static_cast<Kind>(plan >> 3 & 7)),
          m_nTaken(m_kind != Kind::Pending ? plan >> 6 : 0),
          m_nError(ErrorOf(m_kind, plan >> 6))
    {
    }

    // Instead of a message, the next call on each connected socket is refused, for an earlier datagram.
    bool ArePending() const { return m_kind == Kind::Pending && m_nCount != 0; }
    int Error() const { return m_nError; }

    // 0, or the error number for this message.
    int Next(const kernel_model::Attempt& attempt)
    {
        if (m_nCount == 0 || !Concerns(attempt))
            return 0;
        if (m_nTaken > 0) {
            --m_nTaken;
            return 0;
        }
        --m_nCount;
        return m_nError;
    }

private:
    enum class Kind : uint8_t { Any, Permission, Full, Pending, NoChecksums, Invalid, TooLong, Buffers };

    static int ErrorOf(Kind kind, uint8_t which)
    {
        constexpr int ANSWERS[] = { ECONNREFUSED, EHOSTUNREACH, EMSGSIZE, EPROTO };
        constexpr int ERRORS[] = { ENOBUFS, EPERM, EAGAIN, 0, EIO, EINVAL, EMSGSIZE, ENOBUFS };
        return kind == Kind::Pending ? ANSWERS[which & 3] : ERRORS[static_cast<uint8_t>(kind)];
    }

    bool Concerns(const kernel_model::Attempt& attempt) const
    {
        switch (m_kind) {
        case Kind::Any:
        case Kind::Permission:
            return true;
        case Kind::Full:
            return !attempt.mayWait;
        case Kind::Pending:
            return false;
        default:
            return attempt.message.IsTrain();
        }
    }

    uint8_t m_nCount = 0;
    Kind m_kind = Kind::Any;
    uint8_t m_nTaken = 0;
    int m_nError = 0;
};
