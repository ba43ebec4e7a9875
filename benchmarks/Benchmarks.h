#pragma once

namespace benchmarks {

// Each registers the benchmarks of one subject, those of the library beside those of the floor.
void registerPublication();
void registerLookups();
void registerMonitors();
void registerGroups();
void registerArrays();
void registerConcurrency();
void registerStartUp();
void registerCost();

// Those that reach beneath the public headers, and are another program for it.
void registerRecords();

} // namespace benchmarks
