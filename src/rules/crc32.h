#pragma once
// The standard CRC-32 (reflected polynomial EDB88320, as in IEEE 802.3) over a block of
// bytes, on a running register: start with FFFFFFFF, feed the blocks in order, invert the
// register at the end.

#include <cstddef>
#include <cstdint>

namespace tessmark::crc32 {

// The fastest method this processor offers.
uint32_t Update(uint32_t reg, const void* data, size_t size);

// The register after `count` zero bytes, without reading them: the register is multiplied by
// x^(8 count) modulo the polynomial, in about 2 log2(count) steps. A hole of a sparse file
// reads as zeros, so its part of the checksum costs nothing to compute.
uint32_t UpdateZeros(uint32_t reg, uint64_t count);

// One table look-up per byte: the plain method, for comparison and for a table of another
// polynomial.
uint32_t UpdateByteTable(uint32_t reg, const void* data, size_t size, const uint32_t* table);

// The methods behind Update, slowest first. Update takes the fastest this processor has;
// each is open here so that every one can be held against the byte table.
enum class Method {
  Slicing8,           // eight look-ups in eight tables per eight bytes, on any processor
  CarrylessFold,      // PCLMULQDQ folds 16-byte blocks, four at a time
  WideCarrylessFold,  // VPCLMULQDQ folds two blocks per instruction in 256-bit registers
};

bool Supports(Method method);
Method FastestMethod();

// By one method. A method the processor lacks, or a block too short for it, takes the next
// slower one.
uint32_t UpdateBy(Method method, uint32_t reg, const void* data, size_t size);

}  // namespace tessmark::crc32
