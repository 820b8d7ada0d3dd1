/* The on-disk records of an image file (.twf, .twi), for C and C++.
 *
 * All integers are little-endian, wide text is UTF-16 in little-endian units, and no record is
 * padded. A sector is SectorSize bytes of the image file. docs/image-format.md tells the rules
 * behind the records: what is optional, what is enciphered, and how the checksums are made.
 *
 * The records are meant to be copied from and to file buffers with memcpy; a pointer to one may
 * have any alignment.
 */
#ifndef KQIMAGEFORMAT_H
#define KQIMAGEFORMAT_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define KQ_FORMAT_ASSERT(name, condition) static_assert(condition, #name)
#else
#define KQ_FORMAT_ASSERT(name, condition) typedef char KQFormatAssert_##name[(condition) ? 1 : -1]
#endif
#define KQ_FORMAT_OFFSET(record, field, offset) \
  KQ_FORMAT_ASSERT(record##_##field, offsetof(record, field) == (offset))

#define KQ_PACKED __attribute__((packed))

/* ImageHeader.Magic: "OPEN" from creation until the close has completed the file, then "TWFI". */
#define KQ_MAGIC_FINISHED "TWFI"
#define KQ_MAGIC_OPEN "OPEN"

/* ImageHeader.Flags: an ExtendedRecord stands behind the Comment. */
#define KQ_FLAG_EXTENDED_RECORD 0x2u

/* ImageHeader.CompressionType. */
#define KQ_COMPRESSION_NONE 0u
#define KQ_COMPRESSION_LZW 3u
#define KQ_COMPRESSION_LZSS 4u
#define KQ_COMPRESSION_LZO 5u
#define KQ_COMPRESSION_LZO_HUFFMAN 6u

/* ImageHeader.EncryptionType. */
#define KQ_ENCRYPTION_NONE 0u
#define KQ_ENCRYPTION_AES128_UNCHECKED 1u /* no stored check: a wrong password is not noticed */
#define KQ_ENCRYPTION_AES128 2u
#define KQ_ENCRYPTION_RC4 3u
#define KQ_ENCRYPTION_AES256 4u

/* The first 114 bytes of sector 0. KeyBlobLength bytes of KeyBlob follow, then the Comment (wide
 * text with its NUL), then, if KQ_FLAG_EXTENDED_RECORD is set, an ExtendedRecord; the rest of the
 * sector is zero. */
typedef struct KQ_PACKED ImageHeader {
  char Magic[4];
  uint32_t SectorSize;    /* 256, 512, 1024, 2048 or 4096 bytes */
  uint32_t HeaderSectors; /* sectors of the header, this one included; at least 1 */
  uint64_t SourceSize;    /* bytes of the imaged volume, as the creating client gave them */
  uint32_t Flags;         /* bits 0, 2 and 24 to 31 belong to clients */
  uint64_t CreationTime;  /* local time, 100 ns ticks since 1601-01-01 */
  int32_t TimeZoneBias;   /* minutes west of UTC */
  int32_t DaylightBias;   /* minutes: 0, or -60 under daylight saving time */
  uint8_t ImageId[16];
  uint8_t ParentImageId[16]; /* all zero in a base image */
  uint8_t ImageSetId[16];
  uint32_t Generation;
  uint32_t NextGeneration;
  uint32_t PartMarker;
  uint32_t PartIndex;       /* 0 for the first or only part, then 1, 2, ... */
  uint32_t CompressionType; /* KQ_COMPRESSION_... */
  uint32_t EncryptionType;  /* KQ_ENCRYPTION_... */
  uint16_t KeyBlobLength;   /* bytes of KeyBlob behind this record */
} ImageHeader;

KQ_FORMAT_OFFSET(ImageHeader, Magic, 0);
KQ_FORMAT_OFFSET(ImageHeader, SectorSize, 4);
KQ_FORMAT_OFFSET(ImageHeader, HeaderSectors, 8);
KQ_FORMAT_OFFSET(ImageHeader, SourceSize, 12);
KQ_FORMAT_OFFSET(ImageHeader, Flags, 20);
KQ_FORMAT_OFFSET(ImageHeader, CreationTime, 24);
KQ_FORMAT_OFFSET(ImageHeader, TimeZoneBias, 32);
KQ_FORMAT_OFFSET(ImageHeader, DaylightBias, 36);
KQ_FORMAT_OFFSET(ImageHeader, ImageId, 40);
KQ_FORMAT_OFFSET(ImageHeader, ParentImageId, 56);
KQ_FORMAT_OFFSET(ImageHeader, ImageSetId, 72);
KQ_FORMAT_OFFSET(ImageHeader, Generation, 88);
KQ_FORMAT_OFFSET(ImageHeader, NextGeneration, 92);
KQ_FORMAT_OFFSET(ImageHeader, PartMarker, 96);
KQ_FORMAT_OFFSET(ImageHeader, PartIndex, 100);
KQ_FORMAT_OFFSET(ImageHeader, CompressionType, 104);
KQ_FORMAT_OFFSET(ImageHeader, EncryptionType, 108);
KQ_FORMAT_OFFSET(ImageHeader, KeyBlobLength, 112);
KQ_FORMAT_ASSERT(ImageHeader_size, sizeof(ImageHeader) == 114);

/* Identifiers and checksums behind the Comment of sector 0. */
typedef struct KQ_PACKED ExtendedRecord {
  uint32_t RecordFlags; /* bits 4 to 6 name the writing tool; 0x20 is this library */
  uint32_t HeaderCrc;   /* CRC-32/BZIP2 of sector 0, these four bytes taken as zero */
  uint32_t ExtraCrc;    /* CRC-32/BZIP2 of sectors 1 onward as stored; 0 if there are none */
  uint8_t FileUuid[16];
  uint8_t SnapshotSetId[16];
  uint8_t SecondUuid[16];
  uint8_t CarriedId[16]; /* this and all fields below belong to clients */
  uint64_t CarriedValue1;
  uint64_t CarriedValue2;
  uint32_t CarriedValue3;
  uint8_t CarriedBytes1[16];
  uint64_t CarriedValue4;
  uint32_t CarriedValue5;
  uint16_t CarriedValue6;
  uint8_t Reserved[2];
  uint8_t CarriedValue7;
  uint8_t CarriedBytes2[16];
  uint32_t CarriedValue8;
  uint64_t CarriedValue9;
} ExtendedRecord;

KQ_FORMAT_OFFSET(ExtendedRecord, RecordFlags, 0);
KQ_FORMAT_OFFSET(ExtendedRecord, HeaderCrc, 4);
KQ_FORMAT_OFFSET(ExtendedRecord, ExtraCrc, 8);
KQ_FORMAT_OFFSET(ExtendedRecord, FileUuid, 12);
KQ_FORMAT_OFFSET(ExtendedRecord, SnapshotSetId, 28);
KQ_FORMAT_OFFSET(ExtendedRecord, SecondUuid, 44);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedId, 60);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedValue1, 76);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedValue2, 84);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedValue3, 92);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedBytes1, 96);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedValue4, 112);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedValue5, 120);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedValue6, 124);
KQ_FORMAT_OFFSET(ExtendedRecord, Reserved, 126);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedValue7, 128);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedBytes2, 129);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedValue8, 145);
KQ_FORMAT_OFFSET(ExtendedRecord, CarriedValue9, 149);
KQ_FORMAT_ASSERT(ExtendedRecord_size, sizeof(ExtendedRecord) == 157);

/* Sector 1, there when HeaderSectors is at least 2. Up to four wide strings follow, each with its
 * NUL: FirstText, SecondText, ThirdText and a list that counts only behind the text "MPLIST=". */
typedef struct KQ_PACKED ProtectedSector {
  uint32_t DiskInfoPresent; /* 0, or 0xFFFFFFFF: the fields up to TrailingSectors are valid */
  uint32_t PartitionStyle;  /* 0 none, 1 MBR, 2 GPT */
  uint64_t DiskValue1;
  uint32_t DiskValue2;
  uint32_t DiskValue3;
  uint32_t PartitionNumber; /* from 1; 0xFFFFFFFF: none; with MBR 0 selects the last one */
  uint32_t TrailingSectors; /* header sectors at the end that are no part of the tables' copy */
  uint32_t VolumeValue2;
  uint32_t VolumeValue3;
  uint32_t VolumeValue4;
  uint32_t VolumeValue1;
  uint32_t VolumeValue5;
  uint16_t VolumeValue6;
} ProtectedSector;

KQ_FORMAT_OFFSET(ProtectedSector, DiskInfoPresent, 0);
KQ_FORMAT_OFFSET(ProtectedSector, PartitionStyle, 4);
KQ_FORMAT_OFFSET(ProtectedSector, DiskValue1, 8);
KQ_FORMAT_OFFSET(ProtectedSector, DiskValue2, 16);
KQ_FORMAT_OFFSET(ProtectedSector, DiskValue3, 20);
KQ_FORMAT_OFFSET(ProtectedSector, PartitionNumber, 24);
KQ_FORMAT_OFFSET(ProtectedSector, TrailingSectors, 28);
KQ_FORMAT_OFFSET(ProtectedSector, VolumeValue2, 32);
KQ_FORMAT_OFFSET(ProtectedSector, VolumeValue3, 36);
KQ_FORMAT_OFFSET(ProtectedSector, VolumeValue4, 40);
KQ_FORMAT_OFFSET(ProtectedSector, VolumeValue1, 44);
KQ_FORMAT_OFFSET(ProtectedSector, VolumeValue5, 48);
KQ_FORMAT_OFFSET(ProtectedSector, VolumeValue6, 52);
KQ_FORMAT_ASSERT(ProtectedSector_size, sizeof(ProtectedSector) == 54);

/* The start of a chunk's first sector. The inner run list follows, ended by 0xFF. */
typedef struct KQ_PACKED ChunkHead {
  uint32_t StoredSectors;   /* sectors of the chunk in the file, this one included */
  uint32_t ExpandedSectors; /* sectors of the chunk when expanded, this one included */
} ChunkHead;

KQ_FORMAT_OFFSET(ChunkHead, StoredSectors, 0);
KQ_FORMAT_OFFSET(ChunkHead, ExpandedSectors, 4);
KQ_FORMAT_ASSERT(ChunkHead_size, sizeof(ChunkHead) == 8);

/* The start of the ChunkIndex. The top-level run list follows, ended by 0xFF. */
typedef struct KQ_PACKED ChunkIndexHead {
  uint64_t Zero;        /* a reader refuses a block whose first 32 bits are not 0 */
  uint32_t LastPart;    /* not 0: the last or only part of its image; 0: a part follows */
  uint32_t IndexLength; /* bytes of the run list, its 0xFF included */
} ChunkIndexHead;

KQ_FORMAT_OFFSET(ChunkIndexHead, Zero, 0);
KQ_FORMAT_OFFSET(ChunkIndexHead, LastPart, 8);
KQ_FORMAT_OFFSET(ChunkIndexHead, IndexLength, 12);
KQ_FORMAT_ASSERT(ChunkIndexHead_size, sizeof(ChunkIndexHead) == 16);

/* The start of the file's last sector; the rest of it is zero. */
typedef struct KQ_PACKED IndexPointerSector {
  uint64_t IndexOffset; /* file offset of the ChunkIndex */
} IndexPointerSector;

KQ_FORMAT_ASSERT(IndexPointerSector_size, sizeof(IndexPointerSector) == 8);

#endif
