#pragma once

#include <QString>

#include <vector>

/// The Vulkan devices of this machine, read through the system's Vulkan loader (`libvulkan.so.1`),
/// loaded at run time: nothing is linked, and a machine without Vulkan simply has none.
namespace cutlark::VulkanDevices {

struct Device {
    QString name;
    bool software = false; ///< a rasteriser on the CPU (Mesa's lavapipe, SwiftShader): no faster
};

/// The devices, found once per process; empty with `error` saying why when there is no loader or
/// no device. Blocking (the drivers load); for a background thread.
std::vector<Device> devices(QString* error = nullptr);

} // namespace cutlark::VulkanDevices
