// The reader of protected files, over any bytes on disk; what it writes it reads back.

#include <fuzzer/FuzzedDataProvider.h>

#include "fuzz_check.h"
#include "storage/protected_files.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace qev::storage;
  FuzzedDataProvider input(data, size);
  const std::string userName = input.ConsumeRandomLengthString(32);
  const std::string bytes = input.ConsumeRemainingBytesAsString();

  decodeProtected(bytes, userName);
  if (const auto decoded = base64Decode(bytes)) FUZZ_CHECK(base64Encode(*decoded) == bytes);

  FUZZ_CHECK(decodeProtected(encodeProtected(bytes, userName), userName) == bytes);
  FUZZ_CHECK(transformConfigData(transformConfigData(bytes, userName), userName) == bytes);
  return 0;
}
