#pragma once

#include <memory>
#include <string>

#include "arqrx/program/sample_board.h"

namespace prometheus {
class Collectable;
class Exposer;
} // namespace prometheus

namespace arqrx {

// The page http://ADDRESS:PORT/metrics for Prometheus, with figures of the moment at which it is asked for.
// Threads: the page has threads of its own; they take samples from the board, which must outlive this.
class Metrics {
public:
    // `stream` as the operator named it, the label of all metrics. Throws where the address cannot be had.
    Metrics(const std::string& addressAndPort, const std::string& stream, SampleBoard& board);
    ~Metrics();

private:
    std::shared_ptr<prometheus::Collectable> m_page;
    std::unique_ptr<prometheus::Exposer> m_server;
};

} // namespace arqrx
