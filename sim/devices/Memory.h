#ifndef BOARDKIT_SIM_DEVICES_MEMORY_H
#define BOARDKIT_SIM_DEVICES_MEMORY_H

#include <cstdint>
#include <memory>
#include <vector>

#include "devices/Device.h"

/// A word of memory at the start.
struct RegisterPreset {
  std::uint32_t address = 0;
  std::uint32_t value = 0;
};

/// Physical memory: a sparse file as large as the 32-bit range, which the application maps.
///
/// Plain memory without side effects.
class Memory : public Device {
 public:
  Memory(std::vector<RegisterPreset> presets, const Backplane& backplane);

  void Attach(Descriptor descriptor) override;
  bool Is(const FileId& file) const override;
  /// A device is not emptied by an open.
  bool HandsOut(int flags) const override;
  bool HasFixedSize() const override {
    return true;
  }
  Descriptor Open(int flags) const override;

  /// The word at any address, aligned or not.
  std::uint32_t Read(std::uint32_t address) const;
  void Write(std::uint32_t address, std::uint32_t value) const;

 private:
  const std::vector<RegisterPreset> m_presets;
  Descriptor m_file;
  FileId m_id;
};

std::unique_ptr<DeviceKind> MakeMemoryKind();

#endif
