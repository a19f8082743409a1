// Config loading and update, with an application's own lines behind the head: its areas of
// interest, from version 3 on its exclusions, then an arms action. update() must either store
// the text byte for byte, so that the next start reads the same configuration, or refuse it and
// leave the file alone.
#include "FuzzSupport.h"

#include "AOIManager.h"
#include "ActionRecognizer.h"
#include "Config.h"
#include "ExclusionManager.h"

#include <fstream>
#include <iterator>
#include <sstream>

using namespace Ombrel;
using StemlibFuzz::check;

namespace {

class FuzzConfig : public Config {
public:
    explicit FuzzConfig(const std::string& file) : Config(file, 3) {}

    std::string serialize() const override {
        return Config::serialize() + areas.serialize(view) + exclusions.serialize(view) +
               action.serialize() + "\n";
    }

    Resolution view{640, 480};
    AOIManager areas{NAOI};
    ExclusionManager exclusions;
    ArmsAction action;

protected:
    using Config::deserializeStream;
    bool deserializeStream(std::stringstream& s, int versionNumber) override {
        return areas.deserialize(s, view) &&
               (versionNumber < 3 || exclusions.deserialize(s, view)) && action.deserialize(s);
    }
};

std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    StemlibFuzz::quietLibraryLog();
    static const StemlibFuzz::ScratchFile file(".conf");
    const std::string input = StemlibFuzz::text(data, size);

    // Start-up with this file.
    file.write(input);
    FuzzConfig loaded(file.path());
    loaded.initialize();

    // A web handler's update.
    const std::string sentinel = "3\nen\nkept\n";
    file.write(sentinel);
    FuzzConfig updated(file.path());
    if (updated.update(input)) {
        check(contents(file.path()) == input, "an accepted text is stored byte for byte");
        FuzzConfig restarted(file.path());
        restarted.initialize();
        check(restarted.serialize() == updated.serialize(),
              "the stored text reads back to the same configuration");
    } else {
        check(contents(file.path()) == sentinel, "a refused text leaves the file alone");
    }
    return 0;
}
