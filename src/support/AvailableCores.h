#pragma once

/// How many cores this process may really use: the CPUs its affinity mask allows, cut to the CPU
/// quota of its cgroup (v2 `cpu.max`, v1 `cpu.cfs_quota_us` / `cpu.cfs_period_us`, rounded up)
/// when it has one. At least 1. A container that sees 64 CPUs but may use two gets 2.
namespace cutlark::AvailableCores {

int count();

} // namespace cutlark::AvailableCores
