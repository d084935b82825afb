#pragma once

#include <memory>
#include <vector>

#include "blocker.h"
#include "configured.h"
#include "fence.h"
#include "guest.h"
#include "stayer.h"
#include "world.h"

// The whole load: who stays, who comes and goes, and what is counted of it.
class Run {
public:
    static constexpr int32_t FEW_GUESTS = 2;

    struct Places {
        sockaddr_in input;
        sockaddr_in ping;
        sockaddr_in request;
        std::string control; // path of the control socket
        sockaddr_in blocking; // the destination that blocks
        std::string namespaceOfBlocking; // empty: there is none
        double perSecond;
        unsigned seed;
    };

    struct Shape {
        int32_t stayers;
        int32_t guests;
        bool comesAndGoes; // few guests and all in turn; otherwise all
        double longestStaySeconds; // of a guest
        double reportSeconds; // between two looks at the list
        bool isLarge; // packets as a transport stream fills them
    };

    Run(const Places& places, const Shape& shape);

    // Load for so long, then everybody leaves who came, and all that was sent arrives. A fault if that does not end
    // within `patience` seconds.
    void Stage(double seconds, double patience);

    // Who stays goes on pinging until `descriptor` can be read.
    void Idle(int descriptor);

    void PrintFigures();

private:
    // The rates reached in whole seconds without a block.
    struct Rates {
        double best;
        double sum;
        uint64_t seconds;
        void Add(double rate);
        double Mean() const { return seconds != 0 ? sum / static_cast<double>(seconds) : 0; }
    };

    void MakeReceivers(const Places& places);
    void Turn(int descriptor, bool* isReadable);
    void Confirm();
    void Sample(double now);
    bool IsEmpty() const;
    bool IsComplete() const;
    void Fill(double fromBegin);

    const Shape m_shape;
    Source m_source;
    ControlLine m_control;
    World m_world;
    std::vector<std::unique_ptr<Receiver>> m_receivers; // all of them; below by kind
    std::vector<Stayer*> m_stayers;
    std::vector<Guest*> m_guests;
    std::vector<Configured*> m_configured;
    Fence* m_pFence = nullptr;
    Blocker* m_pBlocker = nullptr;
    double m_nextStep = 0;
    double m_sampleBegan = 0;
    uint64_t m_nSampleSent = 0;
    bool m_bSampleIsGood = false;
    Rates m_few {};
    Rates m_many {};
    uint64_t m_nManySum = 0; // receivers that came and went, over all seconds of m_many
};
