#include "devices/Memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "SetupError.h"
#include "Text.h"

namespace {

constexpr const char* kPath = "/dev/mem";
// Beyond 4 GiB: a word at the last address is mapped with the page after it.
constexpr std::int64_t kSize = 0x100002000;

class MemoryKind : public DeviceKind {
 public:
  std::vector<Option> Options() override {
    return {{"--mem", "none", "No /dev/mem", false, [this](const std::string& text) { TakeMemory(text); }},
            {"--reg", "ADDRESS=VALUE", "A word of physical memory at the start", true,
             [this](const std::string& text) { TakePreset(text); }}};
  }

  std::vector<Node> Nodes() const override {
    if (!m_isThere) {
      return {};
    }
    return {{kPath, Node::Kind::kFile, kSize}};
  }

  Devices Make(const Backplane& backplane) const override {
    Devices devices;
    if (m_isThere) {
      devices.push_back(std::make_unique<Memory>(m_presets, backplane));
    }
    return devices;
  }

 private:
  void TakeMemory(const std::string& text) {
    if (text != "none") {
      throw SetupError("--mem can only be none, not \"" + text + "\".");
    }
    m_isThere = false;
  }

  void TakePreset(const std::string& text) {
    const auto [address, value] = Cut(text, '=');
    m_presets.push_back({NumberOf("--reg", address), NumberOf("--reg", value)});
  }

  bool m_isThere = true;
  std::vector<RegisterPreset> m_presets;
};

}  // namespace

Memory::Memory(std::vector<RegisterPreset> presets, const Backplane& backplane)
    : Device(kPath), m_presets(std::move(presets)) {
  backplane.commands.Add("read ADDRESS",
                         [this](const Commands::Words& words) { return Hex(Read(ParseWord(words[0]))); });
  backplane.commands.Add("write ADDRESS VALUE", [this](const Commands::Words& words) {
    Write(ParseWord(words[0]), ParseWord(words[1]));
    return std::string();
  });
}

void Memory::Attach(Descriptor descriptor) {
  m_file = std::move(descriptor);
  m_id = FileId::Of(m_file);
  for (const RegisterPreset& preset : m_presets) {
    Write(preset.address, preset.value);
    if (Read(preset.address) != preset.value) {
      throw SetupError("the register presets can't be written to /dev/mem", ENOSPC);
    }
  }
}

bool Memory::Is(const FileId& file) const {
  return file == m_id;
}

bool Memory::HandsOut(int flags) const {
  return (flags & O_TRUNC) != 0;
}

Descriptor Memory::Open(int flags) const {
  Descriptor own(::open(PathOf(m_file.Get()).c_str(), (flags & (O_ACCMODE | O_APPEND)) | O_CLOEXEC));
  if (!own) {
    throw RequestError{errno};
  }
  return own;
}

std::uint32_t Memory::Read(std::uint32_t address) const {
  std::uint32_t value = 0;
  return ::pread(m_file.Get(), &value, sizeof value, address) == sizeof value ? value : 0;
}

void Memory::Write(std::uint32_t address, std::uint32_t value) const {
  // Fails only if memory itself runs out: then the register keeps its value.
  [[maybe_unused]] const ssize_t written = ::pwrite(m_file.Get(), &value, sizeof value, address);
}

std::unique_ptr<DeviceKind> MakeMemoryKind() {
  return std::make_unique<MemoryKind>();
}
