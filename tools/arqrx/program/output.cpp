#include "arqrx/program/output.h"

#include <utility>

#include "arqrx/program/datagram_output.h"
#include "arqrx/program/file_output.h"

namespace arqrx {

namespace {

std::unique_ptr<Output> OpenDatagrams(
    const OutputAddress& address, const Options& options, std::string& problem)
{
    const bool isStripping = options.isStripping && address.kind == OutputKind::Udp;
    auto output = std::make_unique<DatagramOutput>(address.text, isStripping);
    if (!output->Open(address, problem))
        return nullptr;
    return output;
}

std::unique_ptr<Output> OpenFile(const OutputAddress& address, const Options& options, std::string& problem)
{
    auto output = std::make_unique<FileOutput>(
        address.text, options.isKeepingRtp, static_cast<size_t>(options.writeBufferBytes));
    if (address.kind == OutputKind::StandardOutput)
        output->OpenStandardOutput();
    else if (!output->Open(address.path, problem))
        return nullptr;
    output->Start();
    return output;
}

} // namespace

std::unique_ptr<Output> OpenOutput(const OutputAddress& address, const Options& options, std::string& problem)
{
    const bool isDatagrams = address.kind == OutputKind::Udp || address.kind == OutputKind::Rtp;
    std::unique_ptr<Output> output
        = isDatagrams ? OpenDatagrams(address, options, problem) : OpenFile(address, options, problem);
    if (!output)
        problem = "output " + address.text + ": " + problem;
    return output;
}

} // namespace arqrx
