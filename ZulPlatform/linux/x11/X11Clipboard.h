#pragma once

#include <memory>
#include <string>

#include "ZulCore/Clipboard/Clipboard.h"

namespace zul {

// The CLIPBOARD selection of an X server, on a connection and a window of
// its own: XFixes tells of each new owner, whose TARGETS give the types;
// content is converted on request (INCR for large content). Content the
// phone sets is owned by our window and served to every requestor (TARGETS,
// UTF8_STRING, text/plain;charset=utf-8, image/png; INCR beyond one
// request) until another client takes the selection. Every X call happens
// on the clipboard's one thread.
class X11Clipboard final : public Clipboard {
 public:
  // `display`: the X display's name; empty for $DISPLAY.
  explicit X11Clipboard(std::string display = {});
  // stop()
  ~X11Clipboard() override;

  void start() override;
  void stop() override;
  Bytes read(const std::string& type) override;
  void write(const std::string& type, Bytes content) override;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace zul
