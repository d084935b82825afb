// A file of key=value lines, read by its path. What stat has said of its length may be wrong by then.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "control/config_file.h"
#include "fuzz/world/files.h"
#include "fuzz/world/input_reader.h"
#include "fuzz/world/kernel.h"
#include "fuzz/world/require.h"

namespace {

constexpr const char* KEYS[] = { "min_drop", "min_dist", "max_drop", "max_dist", "mode", "a", "" };

// Values are pieces of the file that do not overlap.
void CheckValues(ConfigFile& file, std::string_view text)
{
    size_t total = 0;
    for (const char* key : KEYS) {
        const char* value = file.Get(key);
        if (value == nullptr)
            continue;
        const size_t length = std::strlen(value);
        total += length;
        Require(
            text.find(std::string_view(value, length)) != std::string_view::npos, "a value is in the file");
        Require(std::strpbrk(value, "\n=") == nullptr, "a value ends with its line or at a second =");
    }
    Require(total <= text.size(), "values are not longer than the file");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Kernel kernel;
    const Kernel::Entered entered(kernel);
    InputReader input(data, size);
    const auto statError = static_cast<int8_t>(input.Byte());
    const std::string_view text = input.Rest();
    Files::WriteSettings(text);
    Files::s_nStatError = statError;
    Files::s_bHasSettings = true;
    ConfigFile file;
    Require(file.Load("/var/run/tx_proxy1.imp.conf") == 0, "a file that is there is read");
    const long seen = std::max(0L, static_cast<long>(text.size()) + statError);
    CheckValues(file, text.substr(0, static_cast<size_t>(seen)));
    file.Parse(text.data(), text.size()); // once more, in place of the first
    CheckValues(file, text);
    Files::s_bHasSettings = false;
    Require(file.Load("/var/run/tx_proxy1.imp.conf") != 0, "a file that is not there is told");
    return 0;
}
