#pragma once

#include <atomic>

// Lets readers walk the stream table without a lock while one writer takes entries out. A writer unlinks
// an entry, waits here until every reader that could have seen it has left, and only then destroys it.
//
// Threads: any number of readers (media sending threads, listen thread); writers one at a time, under the
// replicator lock. A reader never takes that lock inside its section, so a writer's wait ends.
class ReadSections {
public:
    // Enters a section; costs one atomic addition. The result goes to Leave.
    unsigned Enter()
    {
        const unsigned side = m_nSide.load();
        m_readers[side].fetch_add(1);
        return side;
    }
    void Leave(unsigned side) { m_readers[side].fetch_sub(1); }

    // Returns once every reader that entered before the call has left. Readers that enter meanwhile prolong
    // the wait by one section at most: they are counted on the other side.
    void WaitForReaders();

private:
    void WaitForOneSide();

    std::atomic<unsigned> m_nSide { 0 };
    std::atomic<int> m_readers[2] {};
};

// Holds a read section for the length of a block.
class ReadSection {
public:
    explicit ReadSection(ReadSections& sections) : m_sections(sections), m_nSide(sections.Enter()) {}
    ReadSection(const ReadSection&) = delete;
    ReadSection& operator=(const ReadSection&) = delete;
    ~ReadSection() { m_sections.Leave(m_nSide); }

private:
    ReadSections& m_sections;
    unsigned m_nSide;
};
