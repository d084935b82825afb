#pragma once

#include <memory>
#include <string>

#include "demo/feed.h"
#include "demo/folder.h"
#include "demo/gallery.h"
#include "demo/janitor.h"
#include "demo/ledger.h"
#include "demo/options.h"
#include "demo/proxy.h"
#include "demo/signals.h"
#include "demo/station.h"
#include "demo/terminal.h"

namespace demo {

// The whole run: source, proxy, both receivers, the view, the verdict. One thread, one loop.
class Show {
public:
    // `proxyBinary`: what to start. `hasSandbox`: nobody else is on this loopback. All of it outlives the show.
    Show(const Options& options, std::string proxyBinary, bool hasSandbox, Feed& feed, const Folder& folder,
        Signals& signals);
    ~Show();
    Show(const Show&) = delete;
    Show& operator=(const Show&) = delete;

    // The exit status; the verdict is the last line printed.
    int Run();

private:
    // Each false when the run is over: m_failure says why, or a signal came.
    bool StartProxy();
    bool StartReceivers();
    bool Stream();
    bool Drain();

    bool Step(int64_t wakeUs); // waits until then or something comes, then does what is due
    template <typename Condition>
    bool WaitFor(Condition condition, const char* what);
    bool Fail(const std::string& why);
    void Wait(int64_t wakeUs);
    void SendDue(int64_t nowUs);
    int64_t NextWakeUs() const;

    ViewState State(int64_t nowUs) const;
    void Draw(int64_t nowUs);
    void LeaveScreen();
    int Judge();
    void WriteResults(bool isGood);

    const Options m_options;
    const std::string m_proxyBinary;
    const bool m_bSandbox;
    Feed& m_feed;
    const Folder& m_folder;
    Signals& m_signals;

    const int64_t m_nLengthUs;
    const std::vector<Phase> m_phases;
    Ledger m_ledger;
    Gallery m_gallery;
    std::unique_ptr<Proxy> m_proxy;
    std::array<std::unique_ptr<Station>, 2> m_stations;
    common::UdpSocket m_sourceSocket;
    Terminal m_terminal;
    ViewStyle m_style;
    Janitor m_janitor; // ends before the terminal does
    bool m_bLive = false; // the view is on
    bool m_bStreaming = false;
    int64_t m_nNextDrawUs = 0;
    int m_nRows = 0; // of the table, printed so far
    std::string m_failure;
};

} // namespace demo
