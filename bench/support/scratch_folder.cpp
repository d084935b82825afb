#include "scratch_folder.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "child.h"

ScratchFolder::ScratchFolder() : m_path(std::filesystem::temp_directory_path() / "tx_proxy_bench.XXXXXX")
{
    if (mkdtemp(m_path.data()) == nullptr)
        GiveUp("no folder for temporary files");
}

ScratchFolder::~ScratchFolder()
{
    std::error_code ignored;
    (void)std::filesystem::remove_all(m_path, ignored);
}
