#pragma once

#include <atomic>
#include <cstdint>

// Tells the listen thread when packets that are being sent together can be asked for. They are remembered
// after the last receiver's train has left, and the first receiver may miss one and ask for it before that.
//
// Threads: sending threads begin and end, the listen thread waits. No lock.
class BatchProgress {
public:
    // Longer than a batch takes on a busy machine. A sender that has to wait ends its batch first.
    static constexpr uint32_t LONGEST_WAIT_MS = 20;

    void Begin() { m_nBegun.fetch_add(1); }
    void End() { m_nEnded.fetch_add(1); }

    // Returns when as many batches have ended as had begun at the time of the call, LONGEST_WAIT_MS later at
    // the latest; at once while none is under way.
    void WaitForBegun() const;

private:
    std::atomic<uint32_t> m_nBegun { 0 };
    std::atomic<uint32_t> m_nEnded { 0 };
};

// One batch, from here to the end of the block or to End, whichever comes first. Null marks nothing.
class BatchMark {
public:
    explicit BatchMark(BatchProgress* progress) : m_pProgress(progress)
    {
        if (progress != nullptr)
            progress->Begin();
    }
    BatchMark(const BatchMark&) = delete;
    BatchMark& operator=(const BatchMark&) = delete;
    ~BatchMark() { End(); }

    void End()
    {
        if (m_pProgress != nullptr)
            m_pProgress->End();
        m_pProgress = nullptr;
    }

private:
    BatchProgress* m_pProgress; // null: ended
};
