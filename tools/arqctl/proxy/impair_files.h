#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "arqctl/core/ssh_texts.h"
#include "arqctl/proxy/target.h"
#include "base/unique_fd.h"

namespace arqctl {

// What became of a toggle file.
enum class Toggled {
    Taken, // the proxy has seen and removed it
    NotTaken, // it did not in time; the file is gone again, and nothing was switched
    Failed // it could not be made, or nothing is known of it
};

// The files with which a proxy's deliberate loss is switched: settings and toggle, and a lock that keeps two arqctl from
// toggling at once. Where an operation gives a Trouble, one without a problem means that it is done.
// Threads: one thread's own.
class ImpairFiles {
public:
    virtual ~ImpairFiles() = default;

    // Until this object ends.
    virtual Trouble Lock(int64_t patienceUs) = 0;
    // Waits until a toggle that somebody else has made is gone.
    virtual Trouble AwaitNoToggle(int64_t patienceUs) = 0;
    // The whole settings file; "" without one. Too large a one, or something that is no file, is a trouble.
    virtual Trouble ReadSettings(std::string& text) = 0;
    // In one step: the proxy sees the old text or the new one.
    virtual Trouble WriteSettings(const std::string& text) = 0;
    // Makes the toggle file, which must not be there, and waits until the proxy has removed it.
    virtual Toggled Toggle(int64_t patienceUs, Trouble& trouble) = 0;
};

// Those of a proxy of this machine.
class LocalImpairFiles : public ImpairFiles {
public:
    // `folder`: where they are, with a slash; see RunFolderOf.
    LocalImpairFiles(const std::string& folder, int instance);

    Trouble Lock(int64_t patienceUs) override;
    Trouble AwaitNoToggle(int64_t patienceUs) override;
    Trouble ReadSettings(std::string& text) override;
    Trouble WriteSettings(const std::string& text) override;
    Toggled Toggle(int64_t patienceUs, Trouble& trouble) override;

private:
    bool WaitUntilGone(int64_t patienceUs) const;

    const std::string m_toggle;
    const std::string m_settings;
    const std::string m_lockPath;
    UniqueFd m_lock;
};

// Those of the target, by ssh when it is on another machine. `instance`: the proxy's -I.
std::unique_ptr<ImpairFiles> MakeImpairFiles(const Target& target, int instance);

} // namespace arqctl
