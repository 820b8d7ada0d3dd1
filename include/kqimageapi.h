/* libkqimageapi: sector-level backup images of volumes, for C and C++.
 *
 * A full image (.twf) and its increments (.twi) form a chain that reads as one flat volume, the
 * newest file winning for each byte. The functions here open and read chains, create new image
 * files, tell what a file is, check and repair headers, keep writes to a chain in a sparse file,
 * and catalogue the image files of directories.
 *
 * Common rules
 *
 * - Every function returns a KQStatus by value; its field status is 0 for success and negative
 *   for a failure. On a failure, handle, pointer and count outputs are 0, unless said otherwise.
 * - Paths are NUL-terminated strings handed to the operating system as they are. Passwords and
 *   comments are NUL-terminated UTF-8.
 * - All offsets, sizes and lengths are in bytes.
 * - The caller owns every buffer it passes; the library keeps no pointer to one after the call.
 * - The handle of a chain, a sparse file or an enumeration is a number, never 0. All calls on one
 *   handle run one after the other, calls on different handles run in parallel, and a close waits
 *   for calls in progress. A handle must be of the kind that the function is for: that is not
 *   checked. A new image's handle is different: it is unchecked, and for one thread at a time.
 * - The library starts no thread and needs no initialisation. At load it reads the optional file
 *   "kqimageapi.conf" beside the library, with the cache limits in bytes
 *   "ChunkCache_MaxCachedBytes" (default 31457280) and "ChunkHeaderCache_MaxCachedBytes"
 *   (default 2097152).
 */
#ifndef KQIMAGEAPI_H
#define KQIMAGEAPI_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KQ_API __attribute__((visibility("default")))

/* The outcome of a call. 32 bytes, no padding. */
typedef struct KQStatus {
  int32_t status;   /* 0, or a negative KQ_STATUS_... number */
  uint32_t detail1; /* the errno value if an operating-system call failed, else 0 */
  uint32_t detail2; /* 2 if detail1 holds an errno value, else 0 */
  uint16_t line;    /* source line where the failure was noticed */
  char file[18];    /* source module where it was noticed, NUL-terminated; empty on success */
} KQStatus;

#define KQ_STATUS_SUCCESS 0
#define KQ_STATUS_FILE_NOT_FOUND (-2)
#define KQ_STATUS_TOO_MANY_OPEN_FILES (-4)
#define KQ_STATUS_ACCESS_DENIED (-5)
#define KQ_STATUS_NOT_ENOUGH_MEMORY (-8)
#define KQ_STATUS_INVALID_DATA (-13)
#define KQ_STATUS_NO_MORE_FILES (-18) /* the files do not form a chain; nothing to list */
#define KQ_STATUS_WRITE_PROTECT (-19)
#define KQ_STATUS_CRC (-23) /* an input or output error */
#define KQ_STATUS_GEN_FAILURE (-31)
#define KQ_STATUS_SHARING_VIOLATION (-32)
#define KQ_STATUS_NOT_SUPPORTED (-50)
#define KQ_STATUS_BAD_NET_NAME (-67)
#define KQ_STATUS_REQ_NOT_ACCEP (-71)
#define KQ_STATUS_FILE_EXISTS (-80)
#define KQ_STATUS_INVALID_PASSWORD (-86) /* password missing or wrong */
#define KQ_STATUS_INVALID_PARAMETER (-87)
#define KQ_STATUS_BROKEN_PIPE (-109)
#define KQ_STATUS_DISK_FULL (-112)
#define KQ_STATUS_SEM_TIMEOUT (-121)
#define KQ_STATUS_INVALID_NAME (-123)
#define KQ_STATUS_BUSY (-170)
#define KQ_STATUS_MORE_DATA (-234) /* buffer too small; the size needed has been stored */
#define KQ_STATUS_EXCEPTION_IN_SERVICE (-1064)
#define KQ_STATUS_NO_UNICODE_TRANSLATION (-1113)
#define KQ_STATUS_CANCELLED (-1223)
#define KQ_STATUS_RETRY (-1237)
#define KQ_STATUS_FILE_CORRUPT (-1392)
#define KQ_STATUS_UNSUPPORTED_TYPE (-1630) /* a compression type that can't be read back */
#define KQ_STATUS_INVALID_STATE (-5023)
#define KQ_STATUS_ENCRYPTION_FAILED (-6000)
#define KQ_STATUS_DECRYPTION_FAILED (-6001)

/* What an image file says of itself. 296 bytes, packed. */
typedef struct __attribute__((packed)) ImageFileInfo {
  uint32_t sectorSize;
  uint64_t sourceSize;
  uint64_t creationTime; /* local time, 100 ns ticks since 1601-01-01 */
  int32_t timeZoneBias;  /* minutes west of UTC */
  int32_t daylightBias;  /* minutes: 0 or -60 */
  uint8_t imageId[16];
  uint8_t parentImageId[16]; /* all zero in a base image */
  uint8_t imageSetId[16];
  uint32_t partIndex;
  uint32_t lastPart; /* not 0: the last or only part of its image */
  uint32_t compressionType;
  uint32_t encryptionType;
  uint8_t flagByte; /* the header's flag bits 24 to 31 */
  uint8_t flagBit0;
  uint8_t flagBit2;
  uint8_t partMarker;
  uint16_t comment[100]; /* UTF-16, cut at 99 units, the rest zero */
} ImageFileInfo;

/* Tells what the image file at path is. Needs no password.
 *
 * info: 296 bytes of the caller's, zeroed first; stays zero on a failure.
 *
 * Statuses: -87 path or info null; -1392 no finished image file; -2, -5 and others as the
 * operating system reports; -31 shorter than a header; -8 out of memory.
 * Any thread may call it at any time. */
KQ_API KQStatus KQImageFileGetInfo(const char* path, ImageFileInfo* info);

/* What KQImageFileGetInfo tells and all else that the plain part of the header holds. 464 bytes,
 * packed. Without a record everything from recordPresent on is 0. */
typedef struct __attribute__((packed)) ImageFileInfo2 {
  ImageFileInfo basic;
  uint32_t headerSectors;
  uint32_t flags;
  uint32_t generation;
  uint32_t nextGeneration;
  uint8_t recordPresent;      /* 1: an ExtendedRecord was found; what follows comes from it */
  uint8_t headerChecksumGood; /* 1: HeaderCrc matches sector 0 */
  uint8_t extraChecksumGood;  /* 1: ExtraCrc matches the later sectors, or there are none */
  uint8_t carriedValue7;
  uint32_t recordFlags;
  uint8_t fileUuid[16];
  uint8_t snapshotSetId[16];
  uint8_t secondUuid[16];
  uint8_t carriedId[16];
  uint64_t carriedValue1;
  uint64_t carriedValue2;
  uint32_t carriedValue3;
  uint8_t carriedBytes1[16];
  uint64_t carriedValue4;
  uint32_t carriedValue5;
  uint16_t carriedValue6;
  uint16_t reserved; /* 0 */
  uint8_t carriedBytes2[16];
  uint32_t carriedValue8;
  uint64_t carriedValue9;
} ImageFileInfo2;

/* Tells all that can be known of an image file without its password, and whether its header is
 * sound. A wrong checksum is no failure: headerChecksumGood and extraChecksumGood tell it.
 *
 * info: 464 bytes of the caller's, zeroed first; stays zero on a failure.
 *
 * Statuses: as KQImageFileGetInfo. */
KQ_API KQStatus KQImageFileGetInfo2(const char* path, ImageFileInfo2* info);

/* Gives the header sectors of an image file, deciphered: all of them, or those from sector 2 on.
 *
 * password: needed if the image is enciphered and has more than one header sector; may be null
 *   otherwise. A wrong password for encryption type 1 is not noticed and gives garbage from sector
 *   1 on.
 * buffer: receives the sectors; null asks for the size alone.
 * size: the bytes in buffer; receives the bytes of the sectors. Unchanged on every failure but
 *   -234.
 *
 * Statuses: -87 path or size null, or a key blob of the wrong length; -234 size too small for the
 * buffer given, the size needed is stored; -2 no sectors there, or no such file; -86 password
 * missing or wrong; -1392 no finished image file; -31 shorter than its header; -8 out of memory, or
 * a password that is no UTF-8; others as the operating system reports. */
KQ_API KQStatus KQImageFileGetAllHeaderSectors(const char* path, const char* password, void* buffer,
                                               uint32_t* size);
KQ_API KQStatus KQImageFileGetExtraSectors(const char* path, const char* password, void* buffer,
                                           uint32_t* size);

/* Tells whether a password opens an image file.
 *
 * result: true if it does, and for every image that is not enciphered, whatever the password.
 *   false on a failure. Encryption type 1 stores nothing to check against: each password that is
 *   not empty and valid UTF-8 tests true.
 *
 * Statuses: -87 path or result null; -86 an enciphered image and no password or an empty one; -1392
 * no finished image file; -31 shorter than a header; -8 out of memory; others as the operating
 * system reports. A wrong password is no failure. */
KQ_API KQStatus KQImageFileTestPassword(const char* path, const char* password, bool* result);

/* What the deciphered part of a header tells of the imaged volume, its disk, and where on the disk
 * it lay. 593 bytes, packed, and a tail. Texts are UTF-16 with a NUL, cut to their field. The
 * values without another name are the creating client's, who alone knows what they mean. */
typedef struct __attribute__((packed)) ProtectedInfo {
  uint16_t thirdText[64];
  uint16_t secondText[64];
  uint32_t volumeValue5;
  uint16_t volumeValue6;
  uint32_t volumeValue1;
  uint32_t volumeValue2;
  uint32_t volumeValue3;
  uint32_t volumeValue4;
  uint16_t firstText[128];
  uint8_t diskInfoPresent; /* 0: from here to sectorsBefore all is 0 but partitionNumber */
  uint64_t diskValue1;
  uint32_t diskValue2;
  uint32_t diskValue3;
  uint32_t partitionNumber; /* from 1; 0xFFFFFFFF: none, or not known */
  uint8_t tableRead;        /* 1: an MBR table was looked at; if it is damaged, or has no such
                               partition, the partition's fields are 0 */
  uint32_t diskSignature;
  uint64_t partitionLength;
  uint64_t partitionOffset; /* each link in a chain of extended partitions is added to those before
                               it, which a disk does not do from the third logical partition on */
  uint8_t active;
  uint8_t primary; /* 1: no extended partition holds it */
  uint8_t partitionType;
  uint32_t sectorsBefore;   /* its start as it stands in its table */
  uint32_t extraBytes;      /* of the header's sectors from 2 on */
  uint32_t trailingSectors; /* those of them, from the end, that are no copy of the disk's tables */
  uint16_t list[1];         /* the text behind "MPLIST=", of any length; one NUL if there is none */
} ProtectedInfo;

/* Tells what the deciphered part of the header holds, with the partition's place for a disk with an
 * MBR. KQImageFileGetInfoProtectedEx tells more, and of a GPT as well.
 *
 * password: needed if the image is enciphered; may be null otherwise.
 * info: memory of the caller's for the structure and the longest list that the file can hold: 593
 *   bytes and the image's sector size are always enough. The list is stored whole: it is NOT cut
 *   to size.
 * size: at least 593; that many bytes of info are zeroed first. Receives 593 and the bytes of the
 *   list, without its NUL. Unchanged on a failure.
 *
 * A damaged partition table is no failure.
 *
 * Statuses: -87 path, info or size null, or size below 593, then nothing is zeroed, or a key blob
 * of the wrong length; -2 only one header sector, or no such file; -86 password missing or wrong;
 * -1392 no finished image file; -31 shorter than its header; -8 out of memory, or a password that
 * is no UTF-8; others as the operating system reports. A wrong password for encryption type 1 is
 * not noticed and gives garbage. */
KQ_API KQStatus KQImageFileGetInfoProtected(const char* path, const char* password,
                                            ProtectedInfo* info, uint32_t* size);

/* The part of ProtectedInfoEx that a disk with an MBR fills. */
typedef struct __attribute__((packed)) ProtectedMbrInfo {
  uint32_t diskSignature;
  uint8_t active;
  uint8_t inMbr; /* 1: it stands in the MBR itself */
  uint8_t partitionType;
  uint32_t sectorsInFront; /* its start minus 1 if it is the MBR's first entry, else 0 */
} ProtectedMbrInfo;

/* What the deciphered part of a header tells. 256 bytes, packed, and the texts behind them. Texts
 * are UTF-16 with a NUL. */
typedef struct __attribute__((packed)) ProtectedInfoEx {
  const uint16_t* thirdText; /* each points behind the 256 bytes; an empty text to its NUL */
  const uint16_t* secondText;
  uint32_t volumeValue5;
  uint16_t volumeValue6;
  uint32_t volumeValue1;
  uint32_t volumeValue2;
  uint32_t volumeValue3;
  uint32_t volumeValue4;
  const uint16_t* firstText;
  uint32_t extraBytes;      /* of the header's sectors from 2 on */
  uint32_t trailingSectors; /* those of them, from the end, that are no copy of the disk's tables */
  const uint16_t* list;     /* the text behind "MPLIST=" */
  uint8_t diskInfoPresent;  /* 0: from here to partitionNumber nothing means anything */
  uint64_t diskValue1;
  uint32_t diskValue2;
  uint32_t diskValue3;
  uint32_t partitionStyle;  /* 0 none, 1 MBR, 2 GPT */
  uint32_t partitionNumber; /* from 1; 0xFFFFFFFF: none; 0: with an MBR the last one */
  uint8_t tableFound;       /* 1: the tables passed all checks */
  uint8_t partitionFound;   /* 1: and have this partition */
  uint64_t partitionOffset; /* of a logical partition: its start in bytes counted from its own
                               table, plus the SECTOR in which that table lies */
  uint64_t partitionLength;
  union {
    ProtectedMbrInfo mbr;
    uint8_t gptDiskGuid[16];
  } disk;
  /* From here to name for a GPT only. With an MBR they stay as the caller had them. */
  uint64_t usableOffset;
  uint64_t usableLength;
  uint32_t entryCount;
  uint8_t protectiveMbr; /* 1: the MBR in front claims the disk for the GPT alone */
  uint8_t typeGuid[16];
  uint8_t uniqueGuid[16];
  uint64_t attributes;
  uint16_t name[36];
  uint16_t reserved; /* 0 */
} ProtectedInfoEx;

/* Tells what the deciphered part of the header holds.
 *
 * password: needed if the image is enciphered; may be null otherwise.
 * version: 0.
 * info: receives the structure and the texts; null asks for the size alone.
 * size: the bytes in info; receives the bytes needed. Unchanged on every failure but -234.
 *
 * A damaged partition table is no failure: tableFound and partitionFound tell it.
 *
 * Statuses: -87 path or size null, or another version, or a key blob of the wrong length; -234 info
 * null or size too small, the size needed is stored; -2 only one header sector, or no such file;
 * -86 password missing or wrong; -1392 no finished image file; -31 shorter than its header; -8 out
 * of memory, or a password that is no UTF-8; others as the operating system reports. A wrong
 * password for encryption type 1 is not noticed and gives garbage. */
KQ_API KQStatus KQImageFileGetInfoProtectedEx(const char* path, const char* password,
                                              uint32_t version, ProtectedInfoEx* info,
                                              uint32_t* size);

/* A defect of headers that the library can find and repair. 16 bytes. */
typedef struct HeaderIssue {
  uint64_t id;         /* a single bit */
  const char* message; /* a constant of the library */
} HeaderIssue;

/* Lists the known issues: two.
 *
 * table: receives them in the order of their tests; may be null.
 * size: the bytes in table; receives the bytes needed, 32.
 *
 * Statuses: -87 size null; -234 size too small, the size needed is stored, whether or not there is
 * a table. */
KQ_API KQStatus KQImageFileHeaderIssues(HeaderIssue* table, uint32_t* size);

/* What came of one issue. It lives for the length of the callback's call. */
typedef struct HeaderIssueReport {
  uint64_t issueId;
  const char* message;
  uint8_t present; /* 1: it was found and, unless only checking, repaired in memory */
  uint8_t skipped; /* 1: it can't be tested without the deciphered header, which is not to be had */
  uint8_t reserved[2];
  KQStatus status; /* if skipped for a failed decipher: that failure */
} HeaderIssueReport;

/* Returns true to go on. */
typedef bool (*HeaderIssueCallback)(void* argument, const HeaderIssueReport* report);

/* Looks for the known issues in the header of a finished image file, or repairs them in place.
 *
 * A repair writes the header in one write and makes it durable before it reports success; nothing
 * behind the header is touched. No copy is kept: a crash in that moment may leave a header with
 * wrong checksums. The file must not be open in a chain, here or elsewhere.
 *
 * password: needed for issue 2 if the image is enciphered; may be null otherwise.
 * issues: ids, joined by or. Checking: receives those found. Repairing: those to repair.
 * checkOnly: not 0: look only, the file is opened for reading.
 * callback: called once for each issue tested; may be null. A repair without one takes an issue
 *   that is not there for a wrong request.
 *
 * Statuses: -87 path or issues null, or, repairing without a callback, an issue that is not there,
 * then nothing is written; -1392 no finished image file, checksums that are wrong already, a record
 * that can't be found, or, repairing, the wrong password for encryption type 1; -86 repairing
 * without a callback, password missing or wrong for an issue that needs it; -1223 the callback
 * returned false, then nothing is written; -23 the file ends within the block in which its header
 * ends; -6000 and -8 out of memory; others as the operating system reports. */
KQ_API KQStatus KQImageFileFixHeader(const char* path, const char* password, uint64_t* issues,
                                     uint8_t checkOnly, HeaderIssueCallback callback,
                                     void* callbackArgument);

/* Opens the chain that the given files form.
 *
 * files: paths separated by '|', in any order. Every file must belong to the chain: one base
 *   image, its increments up to the newest, and all parts of each.
 * password: opens enciphered images; null if there is none. A file that is open in this process
 *   already is shared and keeps the password of its first open.
 * sparse: handle of a sparse file to lay over the chain, or 0. Reads of the chain see what the
 *   sparse file holds on top of all files, KQImageFilesWrite writes into it, and KQImageFilesClose
 *   closes it. The call waits for one that is running on the handle in another thread. Then the
 *   handle is gone, also if the open fails further on: the sparse file is closed then, and stays on
 *   the disk with all its changes. Only a null argument leaves the handle alone.
 * handle: receives the new handle, to be closed with KQImageFilesClose.
 *
 * Statuses: -87 files or handle null, or sparse unknown; -18 the files do not form one complete
 * chain; -1392 a file is damaged or unfinished; -1630 a file's compression type can't be read back;
 * -86 password missing or wrong; -8 out of memory; others as the operating system reports. */
KQ_API KQStatus KQImageFilesOpen(const char* files, const char* password, uint64_t sparse,
                                 uint64_t* handle);

/* Reads length bytes of the volume from offset, at any alignment, into buffer.
 *
 * What no file holds reads as zero, also beyond the volume's end. What the chain's sparse file
 * holds wins over all image files.
 * bytesRead: receives length on success and 0 on a failure; may be null. On a failure the buffer
 *   is zeroed. There is no partial success.
 * A chunk whose compressed stream is damaged reads as zero, and so does the rest of the range.
 *
 * Statuses: -87 length 0, buffer null, handle 0 or unknown, or a chunk that points into the header;
 * -1392 and -13 damaged chunk; -6001 a chunk that can't be deciphered; -8 out of memory; those of
 * KQSparseFileRead for what the sparse file holds; others as the operating system reports. */
KQ_API KQStatus KQImageFilesRead(uint64_t handle, uint64_t offset, void* buffer, uint32_t length,
                                 uint32_t* bytesRead);

/* Writes size bytes of the volume at offset into the sparse file that the chain was opened with, on
 * top of the chain. The chain's files stay as they are. Any range will do; only ranges of whole
 * sectors of the chain's newest file can become an image when the chain is closed.
 *
 * bytesWritten: receives size on success and 0 on a failure; may be null.
 *
 * Statuses: -87 size 0, buffer null, handle 0 or unknown, or a range beyond offset 2^63 - 1; -19
 * the chain has no sparse file, or one that was opened for reading only; others as
 * KQSparseFileWrite. */
KQ_API KQStatus KQImageFilesWrite(uint64_t handle, uint64_t offset, const void* buffer,
                                  uint32_t size, uint32_t* bytesWritten);

/* Closes a chain. The handle is gone when the call returns, whatever the status; a call that is
 * running on it in another thread completes first. The chain's files are given up in all cases.
 *
 * The other arguments matter to a chain with a sparse file only; each pointer may be null, and the
 * shorter forms pass null for those that they lack. First the sparse file becomes a new increment
 * of the chain's newest file, if newImageFile is not null; then it is closed. Each step runs in all
 * cases.
 *
 * newImageFile: the new image's path, as for KQConvertSparseToIncremental3. Null: no image is made.
 * comment: text for its header, cut to the room there.
 * deleteSparse: 0: the sparse file stays on the disk with all its changes. Otherwise it is removed,
 *   even if no image was asked for or none could be made.
 * imageId: 16 bytes for the new image's ImageId; null for a generated one.
 * sourceSize: the new image's SourceSize; null for that of the chain's newest file.
 *
 * Statuses: -87 handle unknown, then nothing was closed; else as KQConvertSparseToIncremental3 if
 * the image could not be made, else as KQSparseFileClose if the sparse file could not be closed. */
KQ_API KQStatus KQImageFilesClose(uint64_t handle, const char* newImageFile, const char* comment,
                                  uint8_t deleteSparse);
KQ_API KQStatus KQImageFilesClose2(uint64_t handle, const char* newImageFile, const char* comment,
                                   uint8_t deleteSparse, const uint8_t* imageId);
KQ_API KQStatus KQImageFilesClose3(uint64_t handle, const char* newImageFile, const char* comment,
                                   uint8_t deleteSparse, const uint8_t* imageId,
                                   const uint64_t* sourceSize);

/* Creates a new image file from a header template and writes its unfinished header.
 *
 * headerTemplate, templateBytes: a header as kqimageformat.h describes it: sector 0 with the magic
 *   "TWFI", and any further header sectors behind it. The new image becomes the child of the image
 *   that the template describes: the template's ImageId becomes its ParentImageId (all zero makes
 *   a base image), and the generation counts on. SectorSize, Flags, ImageSetId, CompressionType and
 *   EncryptionType are taken over.
 * password: needed when EncryptionType is not 0. If the template has further sectors and a
 *   KeyBlob, it must also be the template's password.
 * fileName: created with mode 0644; an existing file is truncated.
 * sourceSize: replaces the template's SourceSize; may be null.
 * carriedValue1, carriedValue2: replace these fields of the ExtendedRecord; may be null.
 * imageId: 16 bytes for ImageId, or null for a generated one.
 * handle: receives the handle, for one thread at a time. Nothing checks it later.
 *
 * Statuses: -87 handle or template null, the template's sector size 0, its magic wrong, its header
 * above 1 MiB, or no password where one is needed; -1392 imageId all zero or equal to the parent's;
 * -86 password not usable; -8 out of memory or unknown compression type; -6000 enciphering failed;
 * others as the operating system reports. A file that was created stays on a failure; no reader
 * accepts it. */
KQ_API KQStatus KQNewImageFileCreate2(const void* headerTemplate, uint32_t templateBytes,
                                      const char* password, const char* fileName,
                                      const uint64_t* sourceSize, const uint64_t* carriedValue1,
                                      const uint64_t* carriedValue2, const uint8_t* imageId,
                                      uint64_t* handle);

/* Appends size bytes that stand at byte offset of the volume. Both should be multiples of the
 * image's sector size. Pieces are stored in the order in which they come, whatever it is. Readers
 * search a file's pieces as ascending ones, so pieces should go up on the volume for all of them to
 * be found; where two overlap, readers see the one in the chunk that stands first in the file's
 * index. A size of 0 does nothing.
 *
 * Statuses: -87 handle 0 or data null; -8 out of memory; -13 a chunk too small to compress, or the
 * image's header leaves no room for a chunk; -6000 enciphering failed; others as the operating
 * system reports. After a failure the file can only be abandoned. */
KQ_API KQStatus KQNewImageFileWrite(uint64_t handle, const void* data, uint32_t size,
                                    uint64_t offset);

/* Completes the file and frees the handle. Without any data written, the file is removed.
 *
 * comment: text for the header, cut to the room there; may be null.
 *
 * Statuses: as the operating system reports. On a failure the file stays unfinished, and the
 * object is not freed. */
KQ_API KQStatus KQNewImageFileClose(uint64_t handle, const char* comment);

/* Sparse files: byte ranges of a volume at their volume offsets, in one file that can be read and
 * rewritten in place. docs/sparse-format.md describes the file.
 *
 * Given to KQImageFilesOpen, a sparse file takes what is written onto the chain, and reads of the
 * chain see it.
 *
 * Data is in the file when a write returns; the tree that finds it is complete on the disk only
 * after KQSparseFileClose. A file that was not closed, after a crash for one, may say so in its
 * header block and is then refused by every open. Nothing is flushed to the medium.
 *
 * A read or write that fails is tried again, up to 100 times in all, and a line on the standard
 * error stream tells the number of attempts if it was more than one.
 *
 * Statuses of all functions with a handle: -87 the handle unknown; -1064 a lock failed. */

/* KQSparseFileOpen2, mode. */
#define KQ_SPARSE_CREATE_NEW 1    /* fails if the file exists */
#define KQ_SPARSE_CREATE_ALWAYS 2 /* truncates a file that exists */
#define KQ_SPARSE_OPEN_EXISTING 3
#define KQ_SPARSE_OPEN_ALWAYS 4 /* creates the file if it doesn't exist */

/* Opens or creates a sparse file.
 *
 * mode: KQ_SPARSE_...; a new file gets the permissions 0644.
 * readOnly: not 0: for reading only. Counts with KQ_SPARSE_OPEN_EXISTING alone.
 * cacheNodes: how many nodes of the tree, of 8192 bytes each, stay in memory; 0 means 1. It changes
 *   speed, never the result.
 * handle: receives the handle, to be closed with KQSparseFileClose, or given to KQImageFilesOpen.
 *
 * Statuses: -87 path or handle null, or no such mode; -80 the file exists (KQ_SPARSE_CREATE_NEW);
 * -1392 no sparse file, or one that was not closed; -8 out of memory; others as the operating
 * system reports. On a failure a file that was created is removed again; if no handle could be
 * made, one that KQ_SPARSE_CREATE_ALWAYS or KQ_SPARSE_OPEN_ALWAYS found there is removed too. */
KQ_API KQStatus KQSparseFileOpen2(const char* path, int32_t mode, uint8_t readOnly,
                                  uint16_t cacheNodes, uint64_t* handle);

/* The same with KQ_SPARSE_OPEN_EXISTING if openExisting is not 0, else KQ_SPARSE_CREATE_ALWAYS. */
KQ_API KQStatus KQSparseFileOpen(const char* path, uint8_t openExisting, uint8_t readOnly,
                                 uint16_t cacheNodes, uint64_t* handle);

/* Reads what the file holds of the size bytes at offset into the same places of buffer. Bytes that
 * the file doesn't hold stay in buffer as they are.
 *
 * Offsets count as signed 64-bit numbers.
 * bytesRead: receives size on success, whatever was held, and 0 on a failure; may be null. On a
 *   failure a part of buffer may have been written.
 *
 * Statuses: -87 size 0, buffer null, or handle 0 or unknown; -1392 the tree is damaged; -8 out of
 * memory; others as the operating system reports. */
KQ_API KQStatus KQSparseFileRead(uint64_t handle, uint64_t offset, void* buffer, uint32_t size,
                                 uint32_t* bytesRead);

/* Writes size bytes at offset: over what the file holds of the range, and the rest as new extents.
 *
 * bytesWritten: receives size on success and 0 on a failure; may be null. On a failure a part of
 *   the range may have been written.
 *
 * Statuses: -87 size 0, buffer null, handle 0 or unknown, or a range beyond offset 2^63 - 1; -19
 * the file was opened for reading only; -1392 the tree is damaged, or the file's size is no
 * multiple of 4096; -8 out of memory; others as the operating system reports. */
KQ_API KQStatus KQSparseFileWrite(uint64_t handle, uint64_t offset, const void* buffer,
                                  uint32_t size, uint32_t* bytesWritten);

/* Tells how many bytes of the volume the file holds. dataBytes is 0 on a failure.
 *
 * Statuses: -87 dataBytes null, or handle unknown. */
KQ_API KQStatus KQSparseFileGetNumDataBytes(uint64_t handle, uint64_t* dataBytes);

/* Closes a sparse file. The handle is gone when the call returns, whatever the status.
 *
 * deleteFile: 0: what is pending is written, and the file marked as closed. Otherwise the file is
 *   removed, also one that was opened for reading only, and nothing is written.
 *
 * Statuses: -87 handle unknown; -8 out of memory; others as the operating system reports. On a
 * failure lines on the standard error stream tell the step, what was not yet written is lost, and
 * the file stays open until the process ends. */
KQ_API KQStatus KQSparseFileClose(uint64_t handle, uint8_t deleteFile);

/* Makes a new increment of an image out of a sparse file. What the sparse file holds becomes the
 * sectors of the new image, and the new image becomes the child of the parent: its header is the
 * parent's, with an ImageId of its own and the generation counted on. Neither file is changed.
 *
 * sparsePath: must have been closed. It is opened for reading only.
 * parentPath, password: the parent, and what opens it; the password may be null for one that is not
 *   enciphered. The parent is opened as by KQImageFilesOpen: one that this process has open already
 *   keeps the password of its first open. Of a split image the last part is the parent.
 * newImageFile: created with mode 0644; an existing file is truncated, so it must be neither of the
 *   two above. It has the parent's sector size, header size, compression type and encryption type,
 *   and is enciphered under the parent's password with a key of its own. It is removed again if the
 *   sparse file holds nothing; that is no failure.
 * comment: UTF-8 text for the header, cut to the room there; may be null.
 * imageId: 16 bytes for ImageId, or null for a generated one.
 * sourceSize: for SourceSize; null for the parent's.
 *
 * What the sparse file holds should be whole sectors of the parent's size. Any thread may call
 * this; the sparse file and the new one must not be in use meanwhile.
 *
 * The status tells whether the new image was made, not whether it is complete: if the sparse file
 * turns out to be damaged, or can't be read, the image holds what came before that.
 *
 * Statuses: -87 a path null; -2 a file is missing; -1392 no sparse file, one that was not closed, a
 * damaged parent, or imageId all zero or equal to the parent's; -1630 and -86 as KQImageFilesOpen;
 * -8 out of memory; -6000 enciphering failed; others as the operating system reports. A new file
 * that was created stays on a failure; no reader accepts it. */
KQ_API KQStatus KQConvertSparseToIncremental3(const char* sparsePath, const char* parentPath,
                                              const char* password, const char* newImageFile,
                                              const char* comment, const uint8_t* imageId,
                                              const uint64_t* sourceSize);

/* The same with the parent's SourceSize. */
KQ_API KQStatus KQConvertSparseToIncremental2(const char* sparsePath, const char* parentPath,
                                              const char* password, const char* newImageFile,
                                              const char* comment, const uint8_t* imageId);

/* The same with the parent's SourceSize and a generated identifier. */
KQ_API KQStatus KQConvertSparseToIncremental(const char* sparsePath, const char* parentPath,
                                             const char* password, const char* newImageFile,
                                             const char* comment);

/* Enumerations: catalogues of image files, in memory only.
 *
 * An enumeration knows the headers of the image files of the directories added to it, and answers
 * which file depends on which. Its calls come in this order: create, then directories and queries
 * in any mixture, then close. It only grows: a directory is read once, and what happens on the disk
 * later is not noticed.
 *
 * Two files with one ImageId are two copies of one image, and both are in it. A file is the child
 * of every file whose ImageId is its ParentImageId; a base has an all-zero ParentImageId. A split
 * image is one file, its first; it is incomplete if a continuation part is missing or does not fit.
 *
 * A query's path is resolved on the disk first, symbolic links too, so it must exist, in a
 * directory that has been added.
 *
 * Lists of files come as one text. In all queries that give one:
 *
 *   separator: what stands between two files; null stands for one blank. Names can hold any byte
 *     but '/' and NUL, so "///" is a separator that no path holds; split at the leftmost.
 *   flags: KQ_LIST_... bits; others are ignored.
 *   buffer: receives the text with its NUL; null asks for the size alone.
 *   size: the bytes in buffer. Stays as it is on success; receives the bytes needed with -234;
 *     stays on every other failure. Each call makes its list anew.
 *
 * Statuses of all functions with a handle: -87 the handle 0 or unknown, or a pointer null that may
 * not be; -8 out of memory, or a list beyond 4 GiB; -1064 an unexpected failure inside. Of all that
 * give a list: -234 buffer null or size too small. Of all with a path: -2 no such file on the disk,
 * its directory was not added, or the file is not in the enumeration; others as the operating
 * system reports.
 *
 * Calls on one handle run one after the other, and a close waits for the running one, so any thread
 * may make any call. */

/* Each file with its directory. Otherwise only the first of the list has it. */
#define KQ_LIST_FULL_PATHS 1u
/* Behind each split image its continuation parts, those that were found. */
#define KQ_LIST_WITH_PARTS 2u
/* Without the double quotes around each file. Quotes are never escaped. */
#define KQ_LIST_NO_QUOTES 4u
/* Directories without a leading "\\?\". */
#define KQ_LIST_PLAIN_PATHS 8u

/* Makes an empty enumeration.
 *
 * handle: receives the handle, to be closed with KQImageFilesEnumerationClose.
 * reserved1, reserved2: 0.
 *
 * Statuses: -87 handle null or a reserved argument not 0, then the handle is not touched; -8 out of
 * memory. */
KQ_API KQStatus KQImageFilesEnumerationCreate(uint64_t* handle, int32_t reserved1,
                                              uint64_t reserved2);

/* Frees an enumeration. Waits for a call that is running on it in another thread.
 *
 * Statuses: -87 handle 0 or unknown. */
KQ_API KQStatus KQImageFilesEnumerationClose(uint64_t handle);

/* Catalogues every image file of a directory, subdirectories left out: those named .twf or .twi, in
 * any case, with their continuation parts. No password is needed. A file that is no sound image
 * (unfinished, damaged, without a size, with a wrong checksum) is left out in silence.
 *
 * reserved1, reserved2: 0.
 *
 * A directory counts as added before its first entry is read: the next call for it, under any path,
 * succeeds and reads nothing, also after a failure. Files read before a failure stay.
 *
 * Statuses: besides those of all, -87 path null or no directory, or a reserved argument not 0; -2
 * no such directory, or a symbolic link in it leads nowhere; -1392 an entry's name is too long;
 * others as the operating system reports. */
KQ_API KQStatus KQImageFilesEnumerationAddDirectory(uint64_t handle, const char* path,
                                                    int32_t reserved1, uint64_t reserved2);

/* Lists the chain of an image, base first, the image last: the way upward with the fewest files.
 * Of copies of an image the one that was catalogued first is taken.
 *
 * That there is a way is sure only of complete files; the way given can pass an incomplete copy
 * that was catalogued before the complete one.
 *
 * Statuses: besides those of all, -18 no whole chain of complete files leads from a base of the
 * image's set to it. */
KQ_API KQStatus KQImageFilesEnumerationQueryShortestPathToBase(uint64_t handle, const char* path,
                                                               const char* separator,
                                                               uint32_t flags, char* buffer,
                                                               uint32_t* size);

/* Not implemented.
 *
 * Statuses: -87 as for all queries; otherwise -50. */
KQ_API KQStatus KQImageFilesEnumerationQueryPathToOldestParent(uint64_t handle, const char* path,
                                                               const char* separator,
                                                               uint32_t flags, char* buffer,
                                                               uint32_t* size);

/* Tells whether any file names the image as its parent.
 *
 * answer: receives 1 or 0; stays on a failure.
 *
 * Statuses: those of all, answer included in the pointers. */
KQ_API KQStatus KQImageFilesEnumerationQueryImageHasDescendants(uint64_t handle, const char* path,
                                                                uint8_t* answer);

/* Lists where the ways upward from an image end: a base, or a file none of whose parents is there
 * and complete. The nearest come first; one that is reached by two ways is listed twice.
 *
 * Files that name each other as parents, in a ring, are visited once each time a way enters the
 * ring.
 *
 * Statuses: besides those of all, -18 the file is incomplete, or all its ways end in a ring. */
KQ_API KQStatus KQImageFilesEnumerationQueryRoots(uint64_t handle, const char* path,
                                                  const char* separator, uint32_t flags,
                                                  char* buffer, uint32_t* size);

/* Lists an image and everything that descends from it, incomplete files too, each file before its
 * children. What hangs below two copies of one image is listed twice. Rings as in
 * KQImageFilesEnumerationQueryRoots.
 *
 * Statuses: those of all. */
KQ_API KQStatus KQImageFilesEnumerationQueryAllPureDependents(uint64_t handle, const char* path,
                                                              const char* separator, uint32_t flags,
                                                              char* buffer, uint32_t* size);

/* Lists the files without a whole chain of complete files up to a base: incomplete ones, those
 * whose parent is not there, and all that hangs below such. In no order that a client may rely on.
 *
 * Statuses: besides those of all, -18 there is none. */
KQ_API KQStatus KQImageFilesEnumerationQueryAllOrphans(uint64_t handle, const char* separator,
                                                       uint32_t flags, char* buffer,
                                                       uint32_t* size);

/* Lists all other files, bases included: those from which a volume can be restored. Parents come
 * before their children, and bases by name.
 *
 * Statuses: besides those of all, -18 there is none. */
KQ_API KQStatus KQImageFilesEnumerationQueryAllFostered(uint64_t handle, const char* separator,
                                                        uint32_t flags, char* buffer,
                                                        uint32_t* size);

/* Lists the files of one snapshot set, of those that KQImageFilesEnumerationQueryAllFostered lists
 * and in its order.
 *
 * snapshotSetId: 16 bytes, as ImageFileInfo2 has them. Nothing belongs to the all-zero set.
 *
 * Statuses: besides those of all, -18 there is none. */
KQ_API KQStatus KQImageFilesEnumerationQuerySnapshotSet(uint64_t handle,
                                                        const uint8_t* snapshotSetId,
                                                        const char* separator, uint32_t flags,
                                                        char* buffer, uint32_t* size);

/* Names of image files
 *
 * Names are a stem, numbered tags and an extension, as in host-b001.twf, its key file
 * host-b001.twk, and its increments host-b001-i001.twi and host-b001-i002.twi; -m001 is an
 * increment made of a mounted image. A tag counts where its digits are followed by a hyphen or a
 * point. These functions take no handle; any thread may call them at any time.
 *
 * path: of an image file, which must exist; symbolic links are followed first. No header is read.
 * buffer, size: as in the lists above, except where told. The result is a full path. */

/* Gives the next free name in the series of an image: the "-i" ("-m") number counted up, or a new
 * tag 001, until nothing but a directory or a block device has the name. Nothing is reserved: only
 * creating the file decides who gets the name.
 *
 * size: receives the bytes needed on success as well.
 *
 * Statuses: -87 path or size null, or a name shorter than five characters or not ending in twf or
 * twi; -234 buffer null or size too small; -2 no such file; -8 out of memory; others as the
 * operating system reports. */
KQ_API KQStatus KQImageGetNextAvailableImageFileName(const char* path, char* buffer,
                                                     uint32_t* size);
KQ_API KQStatus KQImageGetNextAvailableMountGeneratedImageFileName(const char* path, char* buffer,
                                                                   uint32_t* size);

/* Gives the path of the key file of an image's family: the image's name up to its first "-b" tag,
 * and ".twk". Whether there is such a file is not looked at.
 *
 * Statuses: -87 path or size null; -1392 the name has no "-b" tag; -234 buffer null or size too
 * small; -2 no such file; -8 out of memory; others as the operating system reports. */
KQ_API KQStatus KQImageFilesEnumerationQueryImageKeyFileName(const char* path, char* buffer,
                                                             uint32_t* size);

#ifdef __cplusplus
}
#endif

#endif
