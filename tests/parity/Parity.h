/// @file
/// The parts of the parity program.
#pragma once

#include <cstdint>

/// Prints images of headers, checksums and what packets hold.
void parityOfPackets();

void printHex(const void* data, uint32_t bytes);
