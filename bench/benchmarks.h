// The benchmarks, by their names: the summary finds their figures under them.
#pragma once

#include <cstddef>
#include <string>

// What a pass-through goes through, or what a block is brought by.
enum class Way { Plain, MinimalFilter, Driver, DriverVerified };

enum class PassedRequest { Write, DeviceControl };
std::string PassThroughName(PassedRequest What, Way How);
void RegisterPassThrough();

constexpr size_t BlockSizes[] = {64, 1024, 65536};
// Way::Plain is the copies alone; there is no Way::MinimalFilter.
std::string BlockName(size_t Bytes, Way How);
void RegisterBlocks();

// A run of an explored race, with the verifier on, and a switch from one fiber to another.
constexpr char ExploredRunName[] = "explore/run";
constexpr char FiberSwitchName[] = "explore/fiber-switch";
constexpr char StepsCounter[] = "steps";  // switch points of a run
void RegisterExploring();

// The counter of the others: pool allocations for one request or block.
constexpr char AllocationsCounter[] = "allocations";
