#pragma once

namespace benchmarks {

// Each registers the benchmarks of one subject, those of the library beside those of the floor.
void registerPublication();
void registerLookups();

} // namespace benchmarks
