/* sxscan — the scan library's public interface for hosts.
 *
 * A host loads libsxscan.so, opens the stored data source with SxLoad (or
 * enumerates sources with SxGetDS and picks one with SxSetDriverById), reads
 * and changes settings by capability code, and runs acquisitions with
 * SxAcquire, receiving the raster through its TransferCallback.
 *
 * Every record here keeps its 32-bit Windows layout on i386; on x86-64 only
 * fields that hold an address widen to 8 bytes. */
#ifndef SXSCAN_H
#define SXSCAN_H

#include <stddef.h>
#include <stdint.h>

/* The standard calling convention of the 32-bit system: __stdcall on
 * Windows (any compiler; x86-64 ignores it) and on i386. */
#if defined(_WIN32)
#define SX_API __stdcall
#elif defined(__i386__)
#define SX_API __attribute__((stdcall))
#else
#define SX_API
#endif

#ifdef __cplusplus
#define SX_EXTERN_C extern "C"
#else
#define SX_EXTERN_C
#endif

/* On Windows the DLL's exports are named by its .def file (undecorated, as
 * hosts look them up); a host sees plain declarations. */
#if defined(_WIN32)
#define SX_EXPORT SX_EXTERN_C
#else
#define SX_EXPORT SX_EXTERN_C __attribute__((visibility("default")))
#endif

/* Result codes produced by the library itself. Driver status codes are mapped
 * onto -4, -6, -8, -9, -12, -17, -20, -22, -23, -27, -28 and -30; 131 and
 * 2003 pass through unchanged. */
#define SX_OK 0
#define SX_ERR_DRIVER (-4)
#define SX_ERR_CANCELLED (-5)
#define SX_ERR_UNSUPPORTED (-7)
#define SX_ERR_NO_COLOR (-8)
#define SX_ERR_NO_MEMORY (-9)
#define SX_ERR_NO_SOURCE (-10)
#define SX_ERR_NO_PAPER (-16)
#define SX_ERR_NO_ASPI (-23)

/* Messages of SxGetDS. */
#define SX_DS_FIRST 2
#define SX_DS_NEXT 3

/* Value types: how the host represents a value it passes or wants back. */
#define TY_INT16 0x8010
#define TY_INT32 0x8011
#define TY_FLOAT32 0x8012
#define TY_UINT16 0x8013
#define TY_STR32 0x8014
#define TY_STR64 0x8015
#define TY_STR128 0x8016
#define TY_STR255 0x8017
#define TY_UINT8 0x8018
#define TY_UINT32 0x8019

/* Capability codes. */
#define CAP_LOCALIZE 0x9000
#define CAP_MODELNAME 0x9004
#define CAP_SERIALNUMBER 0x9005
#define CAP_FIRMWAREVERSION 0x9006
#define CAP_BUFFERING 0x9007
#define CAP_BACKGROUND 0x9008
#define CAP_ENERGYSAVING 0x9009
#define CAP_UICONTROL 0x9050
#define CAP_INDICATORS 0x9051
#define CAP_MINBUFFER 0x9052
#define CAP_PUSHBUTTON 0x9053
#define CAP_SCANTYPE 0x9100
#define CAP_FEEDERTYPE 0x9101
#define CAP_XRESOLUTION 0x9200
#define CAP_YRESOLUTION 0x9201
#define CAP_PIXELTYPE 0x9202
#define CAP_BITSPERPIXEL 0x9203
#define CAP_BRIGHTNESS 0x9204
#define CAP_CONTRAST 0x9205
#define CAP_HIGHLIGHT 0x9206
#define CAP_SHADOW 0x9207
#define CAP_GAMMA 0x9208
#define CAP_FILTER 0x9209
#define CAP_COMPRESSION 0x9210
#define CAP_DITHER 0x9211
#define CAP_THRESHOLD 0x9212
#define CAP_INVERT 0x9300
#define CAP_SHARPEN 0x9303
#define CAP_COLORMATCH 0x9304
#define CAP_DESCREEN 0x9305
#define CAP_BACKGROUNDLINES 0x930d
#define CAP_MAXLENGTHS 0x9400
#define CAP_MAXWIDTHS 0x9401
#define CAP_XPOSITION 0x9500
#define CAP_YPOSITION 0x9501
#define CAP_IMAGELENGTH 0x9502
#define CAP_IMAGEWIDTH 0x9503
#define CAP_UNITS 0x9504
#define CAP_OVERSCAN 0x9505
#define CAP_XFERCOUNT 0x9600
#define CAP_PAGESIZE 0x9601
#define CAP_RESERVED9602 0x9602
#define CAP_FEEDERLOADED 0x9603

/* Transfer callback codes. */
#define SX_XFER_DATA 0
#define SX_XFER_PAGE_END 1
#define SX_XFER_IMAGE_INFO 2
#define SX_XFER_SHORT_PAGE 5
#define SX_XFER_CANCELLED (-5)
#define SX_XFER_READ_FAILED (-1)

#pragma pack(push, 1)

/* One data source as the host sees it: 281 bytes, texts zero-terminated
 * within their fields. The library's list link is never copied to the host. */
typedef struct SxDataSource {
  char FileVersion[13];
  char Directory[125];
  char FileName[33];
  char DisplayName[42];
  char Vendor[33];
  char PortName[33];
  uint8_t HostAdapter;
  uint8_t DeviceNumber;
} SxDataSource;

/* Image description passed with callback code 2: 46 bytes. */
typedef struct SxImageInfo {
  int32_t ResolutionX;
  int32_t ResolutionY;
  int32_t PixelsPerLine;
  int32_t LinesPerPage;
  int32_t BitsPerPixel;
  int32_t BufferSizeHint;
  int16_t SamplesPerPixel;
  int16_t BitsPerSample[8];
  int16_t PixelType;
  int16_t Reserved;
} SxImageInfo;

#pragma pack(pop)

/* The block SxQueryData hands over: count, then the address of the items
 * block. Both blocks are movable global memory left locked; the host unlocks
 * and frees them with the functions of sxsys.h. */
typedef struct SxValueList {
  int32_t Count;
  void* Items;
} SxValueList;

/* The host's transfer callback: (data, pointer to a 64-bit byte count, code).
 * Returns 0 to go on; anything else stops the acquisition. */
typedef int32_t(SX_API* SxTransferCallback)(void* data, int64_t* byteCount, int32_t code);

SX_EXPORT int32_t SX_API SxLoad(void* window);
SX_EXPORT int32_t SX_API SxFree(void);
SX_EXPORT int32_t SX_API SxGetDS(uint32_t message, SxDataSource* dataSource);
SX_EXPORT int32_t SX_API SxSetDriverById(SxDataSource* dataSource, uintptr_t reserved);
SX_EXPORT int32_t SX_API SxSetValue(uint32_t capability, uint32_t valueType, void* value);
SX_EXPORT int32_t SX_API SxGetValue(uint32_t capability, uint32_t valueType, void* value);
SX_EXPORT int32_t SX_API SxQueryData(uint32_t capability, uint32_t valueType, SxValueList** listOut);
SX_EXPORT int32_t SX_API SxAcquire(SxTransferCallback callback, void* transferBuffer);

#ifdef __cplusplus
static_assert(sizeof(SxDataSource) == 281, "DataSource host part is 281 bytes");
static_assert(offsetof(SxDataSource, FileVersion) == 0x000, "layout");
static_assert(offsetof(SxDataSource, Directory) == 0x00D, "layout");
static_assert(offsetof(SxDataSource, FileName) == 0x08A, "layout");
static_assert(offsetof(SxDataSource, DisplayName) == 0x0AB, "layout");
static_assert(offsetof(SxDataSource, Vendor) == 0x0D5, "layout");
static_assert(offsetof(SxDataSource, PortName) == 0x0F6, "layout");
static_assert(offsetof(SxDataSource, HostAdapter) == 0x117, "layout");
static_assert(offsetof(SxDataSource, DeviceNumber) == 0x118, "layout");
static_assert(sizeof(SxImageInfo) == 46, "ImageInfo is 46 bytes");
static_assert(offsetof(SxImageInfo, BufferSizeHint) == 20, "layout");
static_assert(offsetof(SxImageInfo, SamplesPerPixel) == 24, "layout");
static_assert(offsetof(SxImageInfo, BitsPerSample) == 26, "layout");
static_assert(offsetof(SxImageInfo, PixelType) == 42, "layout");
static_assert(offsetof(SxImageInfo, Reserved) == 44, "layout");
static_assert(offsetof(SxValueList, Items) == (sizeof(void*) == 8 ? 8 : 4), "layout");
static_assert(sizeof(SxValueList) == (sizeof(void*) == 8 ? 16 : 8), "layout");
#endif

#endif /* SXSCAN_H */
