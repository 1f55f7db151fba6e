// Dualog: the text trace. Lines belong to a facility (usually the class that traces) and carry a
// level from 0 (most important) to 9 (most detailed). A facility writes the lines whose level is
// at most its own level; every facility is off until the embedding program enables it, e.g.
//   Dualog::enable("*", 4);                  // every facility up to level 4
//   Dualog::enable("ExporterInfoSm", 9);     // one facility fully
// Lines go to stderr unless a sink is installed.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <string_view>

namespace Dualog {

constexpr int off() {
   return -1;
}

class Facility {
 public:
   explicit Facility(std::string name) : name_(std::move(name)) {}
   std::string const& name() const { return name_; }
   int level() const { return level_.load(std::memory_order_relaxed); }
   void levelIs(int l) { level_.store(l, std::memory_order_relaxed); }
   bool on(int lvl) const { return lvl <= level(); }

 private:
   std::string name_;
   std::atomic<int> level_{off()};
};

// The facility of that name, created on first use (at the level "*" was last enabled at).
// The reference stays valid for the life of the process.
Facility& facility(std::string_view name);
Facility& defaultFacility();

// Sets the level of one facility, or of every facility (present and future) for "*".
void enable(std::string_view name, int level);
// Parses "Fac1/4,Fac2/9,*/2" (level defaults to 9); returns false on malformed text.
bool enableFromSpec(std::string_view text);
// Whether enableFromSpec would accept `text`; enables nothing.
bool validSpec(std::string_view text);

using Sink = std::function<void(Facility const&, int level, std::string_view line)>;
// Replaces the output; an empty sink restores stderr.
void sinkIs(Sink sink);

void write(Facility const& fac, int level, std::string_view line);

}  // namespace Dualog
