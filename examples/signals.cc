// Two objects that do not know each other's class, tied by a signal.
#include <cstdio>
#include <string>

#include "bsp/sigslot/sigslot.h"

namespace {

class Meter {
 public:
  sigslot::signal2<int, std::string> SignalReading;
  void Measure(int value) { SignalReading(value, "C"); }
};

class Panel : public sigslot::has_slots<> {
 public:
  void Show(int value, std::string unit) { printf("panel shows %d %s\n", value, unit.c_str()); }
};

}  // namespace

int main() {
  Meter meter;
  {
    Panel panel;
    meter.SignalReading.connect(&panel, &Panel::Show);
    meter.Measure(21);
  }
  meter.Measure(22);  // the panel is gone, and its connection with it
  puts("nobody looked at 22");
  return 0;
}
