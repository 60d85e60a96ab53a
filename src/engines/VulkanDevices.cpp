#include "engines/VulkanDevices.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstring>
#include <mutex>

namespace cutlark::VulkanDevices {

namespace {

// The few entries used, with their types as the Vulkan specification declares them. Handles are
// pointers; results are 32-bit, 0 for success.
using VkResult = int32_t;
using PFN = void (*)();
using GetInstanceProcAddr = PFN (*)(void* instance, const char* name);
using CreateInstance = VkResult (*)(const void* createInfo, const void* allocator, void** instance);
using DestroyInstance = void (*)(void* instance, const void* allocator);
using EnumeratePhysicalDevices = VkResult (*)(void* instance, uint32_t* count, void** devices);
using GetPhysicalDeviceProperties = void (*)(void* device, void* properties);

constexpr uint32_t kStructureTypeApplicationInfo = 0;
constexpr uint32_t kStructureTypeInstanceCreateInfo = 1;
constexpr uint32_t kApiVersion11 = (1u << 22) | (1u << 12);
constexpr uint32_t kDeviceTypeCpu = 4;
// VkPhysicalDeviceProperties: apiVersion, driverVersion, vendorID, deviceID, deviceType, then the
// name (256 bytes); the whole structure is 824 bytes on 64-bit Linux, given room to spare here.
constexpr size_t kTypeOffset = 16;
constexpr size_t kNameOffset = 20;
constexpr size_t kNameSize = 256;
constexpr size_t kPropertiesRoom = 4096;

struct ApplicationInfo {
    uint32_t sType = kStructureTypeApplicationInfo;
    const void* pNext = nullptr;
    const char* applicationName = "cutlark";
    uint32_t applicationVersion = 1;
    const char* engineName = "cutlark";
    uint32_t engineVersion = 1;
    uint32_t apiVersion = kApiVersion11;
};

struct InstanceCreateInfo {
    uint32_t sType = kStructureTypeInstanceCreateInfo;
    const void* pNext = nullptr;
    uint32_t flags = 0;
    const ApplicationInfo* applicationInfo = nullptr;
    uint32_t enabledLayerCount = 0;
    const char* const* enabledLayerNames = nullptr;
    uint32_t enabledExtensionCount = 0;
    const char* const* enabledExtensionNames = nullptr;
};

struct Found {
    std::vector<Device> devices;
    QString error;
};

Found find() {
    Found f;
    // The loader stays loaded: the runtime's GPU back end opens it again and shares it.
    void* loader = dlopen("libvulkan.so.1", RTLD_NOW | RTLD_LOCAL);
    if (!loader) {
        f.error = QStringLiteral("no Vulkan loader (libvulkan.so.1)");
        return f;
    }
    const auto getProc = reinterpret_cast<GetInstanceProcAddr>(dlsym(loader, "vkGetInstanceProcAddr"));
    const auto create =
        getProc ? reinterpret_cast<CreateInstance>(getProc(nullptr, "vkCreateInstance")) : nullptr;
    if (!create) {
        f.error = QStringLiteral("the Vulkan loader has no vkCreateInstance");
        return f;
    }
    const ApplicationInfo app;
    InstanceCreateInfo info;
    info.applicationInfo = &app;
    void* instance = nullptr;
    if (const VkResult r = create(&info, nullptr, &instance); r != 0 || !instance) {
        f.error = QStringLiteral("no Vulkan driver answers (vkCreateInstance: %1)").arg(r);
        return f;
    }
    const auto destroy = reinterpret_cast<DestroyInstance>(getProc(instance, "vkDestroyInstance"));
    const auto enumerate =
        reinterpret_cast<EnumeratePhysicalDevices>(getProc(instance, "vkEnumeratePhysicalDevices"));
    const auto properties =
        reinterpret_cast<GetPhysicalDeviceProperties>(getProc(instance, "vkGetPhysicalDeviceProperties"));
    uint32_t count = 0;
    if (enumerate && properties && enumerate(instance, &count, nullptr) == 0 && count > 0) {
        std::vector<void*> handles(count);
        if (enumerate(instance, &count, handles.data()) >= 0) {
            for (uint32_t i = 0; i < count; ++i) {
                alignas(8) unsigned char p[kPropertiesRoom] = {};
                properties(handles[i], p);
                uint32_t type = 0;
                std::memcpy(&type, p + kTypeOffset, sizeof type);
                const char* name = reinterpret_cast<const char*>(p + kNameOffset);
                f.devices.push_back(
                    {QString::fromUtf8(name, qsizetype(strnlen(name, kNameSize))), type == kDeviceTypeCpu});
            }
        }
    }
    if (f.devices.empty()) f.error = QStringLiteral("no Vulkan device");
    if (destroy) destroy(instance, nullptr);
    return f;
}

} // namespace

std::vector<Device> devices(QString* error) {
    static std::once_flag once;
    static Found found;
    std::call_once(once, [] { found = find(); });
    if (error) *error = found.error;
    return found.devices;
}

} // namespace cutlark::VulkanDevices
