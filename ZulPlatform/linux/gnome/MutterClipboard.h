#pragma once

#include <memory>
#include <string>

#include "ZulCore/Clipboard/Clipboard.h"

namespace zul {

class MutterDesktop;

// The clipboard of a GNOME Wayland session, through mutter's remote-desktop
// session that input uses (no prompt): SelectionOwnerChanged tells of each
// change, SelectionRead gives a pipe to read content from, and content the
// phone sets is offered with SetSelection and written to the pipe of each
// SelectionTransfer. Follows input to a new session (a display switch,
// mutter back after a restart).
class MutterClipboard final : public Clipboard {
 public:
  explicit MutterClipboard(std::shared_ptr<MutterDesktop> desktop);
  // stop()
  ~MutterClipboard() override;

  void start() override;
  void stop() override;
  Bytes read(const std::string& type) override;
  void write(const std::string& type, Bytes content) override;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace zul
