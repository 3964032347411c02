#include "media/Records.h"

#include <utility>

#include "base/Endian.h"

namespace ambrel {

#define SWAP(field) (field) = byteSwapped(field)

void convertHPlusExtRec(HFSPlusExtentRecord_* rec) {
  // A zero start block ends the used descriptors; it and all after it keep
  // their disk order. Zero reads the same in either order.
  for (auto& d : rec->extDesc) {
    if (d.startBlock == 0) break;
    SWAP(d.startBlock);
    SWAP(d.blockCount);
  }
}

void convertHPlusForkData(HFSPlusForkData_* fork) {
  SWAP(fork->logicalSize);
  SWAP(fork->clumpSize);
  SWAP(fork->totalBlocks);
  convertHPlusExtRec(&fork->extents);
}

void convertVIB(VolumeInformationBlock* v) {
  SWAP(v->signature);
  SWAP(v->version);
  SWAP(v->attributes);
  SWAP(v->lastMountedVersion);
  SWAP(v->journalInfoBlock);
  SWAP(v->createDate);
  SWAP(v->modifyDate);
  SWAP(v->backupDate);
  SWAP(v->checkedDate);
  SWAP(v->fileCount);
  SWAP(v->folderCount);
  SWAP(v->blockSize);
  SWAP(v->totalBlocks);
  SWAP(v->freeBlocks);
  SWAP(v->nextAllocation);
  SWAP(v->rsrcClumpSize);
  SWAP(v->dataClumpSize);
  SWAP(v->nextCatalogID);
  SWAP(v->writeCount);
  SWAP(v->encodingsBitmap);
  convertHPlusForkData(&v->allocationFile);
  convertHPlusForkData(&v->extentsFile);
  convertHPlusForkData(&v->catalogFile);
  convertHPlusForkData(&v->attributesFile);
  convertHPlusForkData(&v->startupFile);
}

static void convertHFSExtentRecord(ExtentDataRecord* rec) {
  for (auto& d : rec->DescArray) {
    SWAP(d.xdrStABN);
    SWAP(d.xdrNumABlks);
  }
}

void convertMDB(MasterDirectoryBlock* m) {
  SWAP(m->drSigWord);
  SWAP(m->drCrDate);
  SWAP(m->drLsMod);
  SWAP(m->drAtrb);
  SWAP(m->drNmFls);
  SWAP(m->drVBMSt);
  SWAP(m->drAllocPtr);
  SWAP(m->drNmAlBlks);
  SWAP(m->drAlBlkSiz);
  SWAP(m->drClpSiz);
  SWAP(m->drAlBlSt);
  SWAP(m->drNxtCNID);
  SWAP(m->drFreeBks);
  SWAP(m->drVolBkUp);
  SWAP(m->drVSeqNum);
  SWAP(m->drWrCnt);
  SWAP(m->drXTClpSiz);
  SWAP(m->drCTClpSiz);
  SWAP(m->drNmRtDirs);
  SWAP(m->drFilCnt);
  SWAP(m->drDirCnt);
  SWAP(m->drEmbedSigWord);
  SWAP(m->drEmbedExtent.xdrStABN);
  SWAP(m->drEmbedExtent.xdrNumABlks);
  SWAP(m->drXTFlSize);
  convertHFSExtentRecord(&m->drXTExtRec);
  SWAP(m->drCTFlSize);
  convertHFSExtentRecord(&m->drCTExtRec);
}

void convertBTNodeDesc(BTNodeDescriptor_* d) {
  SWAP(d->fLink);
  SWAP(d->bLink);
  SWAP(d->numRecords);
}

void convertBTHdrRec(BTHeaderRecord* h) {
  SWAP(h->treeDepth);
  SWAP(h->rootNode);
  SWAP(h->leafRecords);
  SWAP(h->firstLeafNode);
  SWAP(h->nodeSize);
  SWAP(h->totalNodes);
  SWAP(h->freeNodes);
}

void convertHPlusExtentKey(HFSPlusExtentKey_* k) {
  SWAP(k->keyLength);
  SWAP(k->fileID);
  SWAP(k->startBlock);
}

void convertHPlusCatalogKey(HFSPlusCatalogKey_* k) {
  SWAP(k->keyLength);
  SWAP(k->parentID);
  SWAP(k->nodeName.length);
  swapBigUniCharArrayToHost(k->nodeName.unicode, k->nodeName.length);
}

bool convertHPlusCatalogKeyBounded(HFSPlusCatalogKey_* k) {
  SWAP(k->keyLength);
  SWAP(k->parentID);
  SWAP(k->nodeName.length);
  if (k->nodeName.length > 255) return false;
  swapBigUniCharArrayToHost(k->nodeName.unicode, k->nodeName.length);
  return true;
}

void convertHPlusCatalogFolder(HFSPlusCatalogFolder_* f) {
  SWAP(f->recordType);
  SWAP(f->flags);
  SWAP(f->valence);
  SWAP(f->folderID);
  SWAP(f->createDate);
  SWAP(f->contentModDate);
  SWAP(f->attributeModDate);
  SWAP(f->accessDate);
  SWAP(f->backupDate);
  SWAP(f->textEncoding);
}

void convertHPlusCatalogFile(HFSPlusCatalogFile_* f) {
  SWAP(f->recordType);
  SWAP(f->flags);
  SWAP(f->fileID);
  SWAP(f->createDate);
  SWAP(f->contentModDate);
  SWAP(f->attributeModDate);
  SWAP(f->accessDate);
  SWAP(f->backupDate);
  SWAP(f->textEncoding);
  convertHPlusForkData(&f->dataFork);
  convertHPlusForkData(&f->resourceFork);
}

void convertPM(PartitionMap* pm) {
  SWAP(pm->pmSig);
  SWAP(pm->pmMapBlkCnt);
  SWAP(pm->pmPyPartStart);
  SWAP(pm->pmPartBlkCnt);
}

// The MBR is little-endian like the host: there is nothing to do.
void convertMBR(MasterBootRecord*) {}

void convertGPTHeader(GUIDPartitionTableHeader* h) { SWAP(h->signature); }

void convertGPTEntry(GUIDPartitionTableEntry* e) {
  SWAP(e->typeGUIDHigh);
  SWAP(e->typeGUIDLow);
  swapLittleUniCharArrayToHost(e->partitionName, 36);
}

void swapBigUniCharArrayToHost(void* units, int32_t length) {
  auto* p = static_cast<uint8_t*>(units);
  for (int32_t i = 0; i < length; ++i) std::swap(p[2 * i], p[2 * i + 1]);
}

void swapHostUniCharArrayToBig(void* units, int32_t length) { swapBigUniCharArrayToHost(units, length); }

// UTF-16LE is already host order here.
void swapLittleUniCharArrayToHost(void*, int32_t) {}

#undef SWAP

}  // namespace ambrel
