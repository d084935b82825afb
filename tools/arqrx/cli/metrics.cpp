#include "arqrx/cli/metrics.h"

#include <prometheus/collectable.h>
#include <prometheus/exposer.h>

#include <utility>

#include "arqrx/cli/metric_families.h"
#include "common/clock.h"

namespace arqrx {

namespace {

constexpr int64_t PATIENCE_US = common::US_PER_SECOND;

class FreshPage : public prometheus::Collectable {
public:
    FreshPage(std::string stream, SampleBoard& board) : m_stream(std::move(stream)), m_board(board) {}

    std::vector<prometheus::MetricFamily> Collect() const override
    {
        return MetricFamilies(m_board.Fresh(PATIENCE_US), m_stream);
    }

private:
    const std::string m_stream;
    SampleBoard& m_board;
};

} // namespace

Metrics::Metrics(const std::string& addressAndPort, const std::string& stream, SampleBoard& board)
    : m_page(std::make_shared<FreshPage>(stream, board)),
      m_server(std::make_unique<prometheus::Exposer>(addressAndPort))
{
    m_server->RegisterCollectable(m_page);
}

Metrics::~Metrics() = default;

} // namespace arqrx
