#ifndef BOARDKIT_SIM_DEVICES_DEVICE_H
#define BOARDKIT_SIM_DEVICES_DEVICE_H

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Descriptor.h"
#include "Option.h"
#include "board/Backplane.h"
#include "devices/SystemFolder.h"
#include "sandbox/Filter.h"
#include "sandbox/Node.h"
#include "sandbox/TrappedCall.h"

class Device;
using Devices = std::vector<std::unique_ptr<Device>>;

/// A device of the board, which the application opens under its name.
class Device {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Device(std::string path) : m_path(std::move(path)) {}
  virtual ~Device() = default;
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  const std::string& Path() const {
    return m_path;
  }

  /// Takes the other side of what the application has under the name.
  /// @throws SetupError
  virtual void Attach(Descriptor descriptor) = 0;
  /// Keeps its files in /sys up to date while it is attached.
  virtual void Tell(SystemFolder /*folder*/) {}
  /// Connects it with other devices of the board, once all are attached.
  virtual void Connect(const Devices& /*board*/) {}

  /// Whether the file is this device.
  virtual bool Is(const FileId& file) const = 0;
  /// The application is about to open it.
  /// @throws RequestError if it may not.
  virtual void Opened() {}
  /// It was not opened after all.
  virtual void NotOpened() {}
  /// Whether this is the device's name, where only the text can be compared.
  virtual bool IsCalled(const std::string& name) const {
    return name == Path();
  }
  /// Whether opens get a descriptor from here even where the device exists under its name.
  virtual bool HandsOut(int /*flags*/) const {
    return false;
  }
  /// The file can't be made shorter, or longer.
  virtual bool HasFixedSize() const {
    return false;
  }
  /// A descriptor of its own for the application.
  /// @throws RequestError
  virtual Descriptor Open(int flags) const = 0;
  /// Answers a request on the device.
  /// @throws RequestError
  virtual void Request(const TrappedCall& call) {
    call.Continue();
  }

  /// The application has ended, and with it all that had the device open.
  virtual void Finish() {}
  /// Whether what the application has left is still on its way. Asked after its end until it no longer is.
  virtual bool IsBusy() {
    return false;
  }

 private:
  const std::string m_path;
};

/// A kind of device: its options, and the devices that they ask for.
///
/// The application's needs come first: the files to lie under the names, and the requests on these that the simulator
/// has to answer.
class DeviceKind {
 public:
  DeviceKind() = default;
  virtual ~DeviceKind() = default;
  DeviceKind(const DeviceKind&) = delete;
  DeviceKind& operator=(const DeviceKind&) = delete;

  /// Their values are taken before anything else is called.
  virtual std::vector<Option> Options() = 0;
  virtual std::vector<Node> Nodes() const = 0;
  virtual TrappedRequests Requests() const {
    return {};
  }
  /// The class in /sys that lists devices of this kind; empty: none.
  virtual std::string Class() const {
    return "";
  }
  /// Makes the devices, one per node.
  /// @param backplane outlives them.
  /// @throws SetupError
  virtual Devices Make(const Backplane& backplane) const = 0;
};

/// All kinds that there are.
std::vector<std::unique_ptr<DeviceKind>> AllDeviceKinds();

#endif
