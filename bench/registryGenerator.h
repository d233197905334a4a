// Registry files of n generated classes, byte for byte as the runtime writes
// them after registering classes 0..n-1 in order, and the scratch directories
// the registry benchmarks run in.
#ifndef VELTCOM_BENCH_REGISTRY_GENERATOR_H
#define VELTCOM_BENCH_REGISTRY_GENERATOR_H

#include <cstdint>
#include <string>

namespace bench {

std::string GenerateRegistry(uint32_t classes);

std::string ReadFile(const std::string& path);
// False when the file cannot be written in full.
bool WriteFile(const std::string& path, const std::string& bytes);

// Runs the helper program with one argument in `directory`, with COMLIB
// pointing there, and collects its standard output; true when it exits with 0.
bool RunChild(const std::string& childPath, const std::string& directory, const char* mode, const char* argument,
              std::string& output);

// Registers a few classes through the runtime itself, in a fresh process and
// directory, and compares the file it wrote with GenerateRegistry. Empty when
// they match; otherwise what differs.
std::string CheckGeneratorFormat(const std::string& scratch, const std::string& childPath);

// Makes <scratch>/<classes>/ hold a fresh Registry.XML of that many classes
// and the component library; returns the directory, empty on failure.
std::string PrepareRegistryDirectory(const std::string& scratch, uint32_t classes, const std::string& componentPath);

}  // namespace bench

#endif
