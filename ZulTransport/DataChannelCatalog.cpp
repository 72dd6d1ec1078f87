#include "ZulTransport/DataChannelCatalog.h"

namespace zul::DataChannelCatalog {

const DataChannelSpec* spec(std::string_view label) {
  for (const auto& channel : all) {
    if (channel.label == label) return &channel;
  }
  return nullptr;
}

}  // namespace zul::DataChannelCatalog
