// The watcher of all namespaces, shown: for a second, in which the wire is cut and made again. Ends
// with 0 when it has seen both.

#include <set>
#include <string>

#include "demo/Stage.h"
#include "sandbox/Sandbox.h"
#include "watch/Watcher.h"

namespace {

class Show {
  public:
    bool run() {
        const bool seen = shows("+ link veth-left") && shows("+ address 192.0.2.1/24");
        stage_.print("demo", "-- the wire is cut");
        PavoSandbox::cutWire();
        const bool isCut =
            seen && shows("- address 192.0.2.1/24 of veth-left") && shows("- link veth-left");
        lines_.clear();
        stage_.print("demo", "-- the wire is made again, and a packet goes through it");
        PavoSandbox::connectWire();
        PavoSandbox::run({"ip", "netns", "exec", "left", "ping", "-q", "-c", "1", "192.0.2.2"});
        const bool isBack = isCut && shows("+ link veth-left") && shows("+ neighbour 192.0.2.2");
        const double end = stage_.elapsedSeconds() + 0.5;  // Whatever else there is to see.
        while (isBack && stage_.elapsedSeconds() < end) {
            stage_.loop()->turn(0.1);
        }
        return isBack;
    }

  private:
    bool shows(const std::string& beginning) {
        return stage_.reaches(beginning.c_str(), 10, [&] {
            const auto it = lines_.lower_bound(beginning);
            return it != lines_.end() && it->compare(0, beginning.size(), beginning) == 0;
        });
    }

    Demo::Stage stage_;
    std::set<std::string> lines_;
    Watch::Watcher watcher_{stage_.clock(),
                            [this](const std::string& netNs, const std::string& line) {
                                stage_.print(netNs.c_str(), line);
                                lines_.insert(line);
                            }};
};

}  // namespace

int main() {
    return Demo::inSandbox("pavo-watch-demo", [] { return Show().run(); });
}
