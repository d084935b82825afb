#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// The operator's side of the control socket: commands one after the other, each on a connection of its own.
//
// Threads: main posts and polls; a thread of its own carries out, as a command may take 100 ms.
class ControlLine {
public:
    using Handler = std::function<void(const std::string& reply)>;

    explicit ControlLine(std::string path);
    ControlLine(const ControlLine&) = delete;
    ControlLine& operator=(const ControlLine&) = delete;
    ~ControlLine();

    // `handler` is called by a later Poll.
    void Post(std::string command, Handler handler);

    // Hands out the replies that have come.
    void Poll();

    // The longest that a reply took so far.
    double SlowestSeconds();

private:
    struct Job {
        std::string text; // the command, then its reply
        Handler handler;
    };

    void Run();
    std::string Ask(const std::string& command) const;

    const std::string m_path;
    std::mutex m_mutex; // for all that follows
    std::condition_variable m_changed;
    std::deque<Job> m_waiting;
    std::vector<Job> m_done;
    double m_slowestSeconds = 0;
    bool m_bRunning = true;
    std::thread m_thread;
};
