// Reports what the scene source makes of the accessibility bus in this
// process's environment: one line, "available=<0|1> scan=<some|none>
// invoke=<error or ok>". The integration tests run it against a session
// without an accessibility bus.
#include <cstdio>
#include <memory>

#include "ZulCore/Scene/AccessibilitySceneSource.h"
#include "ZulPlatform/linux/accessibility/AtspiAccessibilityBackend.h"

int main() {
  auto backend = std::make_shared<zul::AtspiAccessibilityBackend>();
  zul::AccessibilitySceneSource source(backend);
  bool available = backend->isAvailable();
  auto scene = source.scan(1, zul::VideoMapping::unscaled({0, 0, 1280, 720}), 0.3);
  std::string invoke = "ok";
  try {
    source.invoke("el:00", 1);
  } catch (const zul::AccessibilitySceneError& e) {
    invoke = e.text();
  }
  std::printf("available=%d scan=%s invoke=%s\n", available ? 1 : 0, scene ? "some" : "none",
              invoke.c_str());
  return 0;
}
