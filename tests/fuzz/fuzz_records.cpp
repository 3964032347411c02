// Every record conversion and the table-kind test over arbitrary bytes.
#include <cstdint>
#include <cstring>
#include <vector>

#include "media/DMedia.h"
#include "media/Records.h"

using namespace ambrel;

template <class T, class F>
static void convertFrom(const uint8_t* data, size_t size, F convert) {
  T record{};
  std::memcpy(&record, data, size < sizeof(T) ? size : sizeof(T));
  convert(&record);
  convert(&record);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  convertFrom<VolumeInformationBlock>(data, size, convertVIB);
  convertFrom<MasterDirectoryBlock>(data, size, convertMDB);
  convertFrom<BTNodeDescriptor_>(data, size, convertBTNodeDesc);
  convertFrom<BTHeaderRecord>(data, size, convertBTHdrRec);
  convertFrom<HFSPlusExtentRecord_>(data, size, convertHPlusExtRec);
  convertFrom<HFSPlusExtentKey_>(data, size, convertHPlusExtentKey);
  convertFrom<HFSPlusCatalogKey_>(data, size, [](HFSPlusCatalogKey_* k) { convertHPlusCatalogKeyBounded(k); });
  convertFrom<HFSPlusCatalogFolder_>(data, size, convertHPlusCatalogFolder);
  convertFrom<HFSPlusCatalogFile_>(data, size, convertHPlusCatalogFile);
  convertFrom<PartitionMap>(data, size, convertPM);
  convertFrom<GUIDPartitionTableHeader>(data, size, convertGPTHeader);
  convertFrom<GUIDPartitionTableEntry>(data, size, convertGPTEntry);
  std::vector<uint8_t> sectors(1024, 0);
  std::memcpy(sectors.data(), data, size < 1024 ? size : 1024);
  (void)partitionTableKindOf(sectors.data(), sectors.data() + 512);
  return 0;
}
