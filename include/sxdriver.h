/**
 * @file sxdriver.h
 * @brief For driver module authors: the binary interface between sxscan and
 * a scanner driver module.
 *
 * A driver module is a shared object (Windows: a DLL) whose name ends in
 * "dll", installed in the driver tree (the Windows folder's twain_32 folder,
 * in a folder of the maker and one of the model) with a version record that
 * names the maker. It exports the entry points below
 * with C linkage and the #SX_DRIVERAPI convention; every entry point returns
 * a signed 32-bit value, nonzero for success. An entry point a module does
 * not export is skipped (the library goes on as if it had succeeded);
 * InitializeDriver, InitializeScanner, TerminateDriver and
 * GetScannerAbilityEx are required for a module to be listed. After a failed
 * call the library asks GetScannerStatusEx for the status code and maps it
 * to its result codes (the table of sxscan.h). Records are little-endian
 * with fixed offsets; on x86-64 only fields that hold an address widen.
 *
 * The library calls a driver from the host's thread, and in buffered
 * acquisitions StartScan, ReadScan, StopScan, GetADFStatus and
 * SetScanParameter between feeder pages from its read thread; never two
 * calls at once.
 */
#ifndef SXDRIVER_H
#define SXDRIVER_H

#include <stddef.h>
#include <stdint.h>

/** The calling convention of every entry point: __stdcall on Windows and
 * i386 (the callee removes the arguments), the platform's default
 * elsewhere. */
#if defined(_WIN32)
#define SX_DRIVERAPI __stdcall
#elif defined(__i386__)
#define SX_DRIVERAPI __attribute__((stdcall))
#else
#define SX_DRIVERAPI
#endif

#pragma pack(push, 1)

/** The description of the next scan, 72 bytes, handed to SetScanParameter.
 * The library fills every field but the exposures and ReadStatus. */
typedef struct ScanParameter {
  uint16_t Left; /**< Left edge of the scan area, 1/300 inch. */
  uint16_t Top; /**< Top edge, 1/300 inch. */
  uint16_t Width; /**< Width, 1/300 inch. */
  uint16_t Length; /**< Length, 1/300 inch (with the overscan). */
  uint16_t PixelNum; /**< Pixels per line the scanner delivers. */
  uint16_t LineNum; /**< Lines the scanner delivers. */
  uint8_t ScanMode; /**< 0 line art, 1 halftone, 2 grey, 4 colour. */
  uint8_t ScanMethod; /**< 0 flatbed; 1, 4, 5 the feeder modes 0, 1, 2; 2 and 3 the alternate-area sources. */
  uint8_t BitsPerPixel; /**< Bits per pixel. */
  uint8_t ScanSpeed; /**< Scan speed; the library sends 0. */
  int8_t Contrast; /**< The library sends 0: tone reaches the image through the tone tables. */
  int8_t Brightness; /**< The library sends 0. */
  uint8_t HTPatternNo; /**< Halftone or diffusion pattern number. */
  uint8_t Highlight; /**< The library sends 255. */
  uint8_t Shadow; /**< The library sends 0. */
  uint8_t ColorFilter; /**< Colour filter of a one-channel scan: 0 none, 1 red, 2 green, 3 blue. */
  uint8_t Invert; /**< The library sends 0 (it inverts itself). */
  uint8_t ReadStatus; /**< Not set by the library. */
  uint16_t ExtScanParam; /**< Extended parameter bits; the library sends 0x9000. */
  uint16_t RExposure; /**< Red exposure; not set by the library. */
  uint16_t GExposure; /**< Green exposure; not set by the library. */
  uint16_t BExposure; /**< Blue exposure; not set by the library. */
  uint16_t XRes; /**< Horizontal resolution, dots per inch. */
  uint16_t YRes; /**< Vertical resolution, dots per inch. */
  uint8_t Reserved24[8]; /**< Zero. */
  uint8_t BackgroundLines; /**< Background raster lines the host asked for. */
  uint8_t Reserved2D[17]; /**< Zero. */
  uint8_t ExtensionFlag; /**< Always 1. */
  uint8_t Reserved3F[9]; /**< Zero. */
} ScanParameter;

/** Basic abilities, 44 bytes, filled by GetScannerAbility; the library
 * reads three fields. */
typedef struct ScannerAbilityBasic {
  uint8_t Reserved00[0x13]; /**< Not read by the library. */
  uint8_t HasExtendedAbility; /**< Nonzero: the driver fills a ::ScannerAbility through GetScannerAbilityEx. */
  uint8_t Reserved14[2]; /**< Not read by the library. */
  uint16_t DefaultAreaWidth; /**< Used as AltAreaWidth when that is 0. */
  uint16_t DefaultAreaLength; /**< Used as AltAreaLength when that is 0. */
  uint8_t Reserved1A[0x12]; /**< Not read by the library. */
} ScannerAbilityBasic;

/** Extended abilities, 142 bytes, filled by GetScannerAbilityEx into a
 * zeroed record: what the library offers the host and how it scans. */
typedef struct ScannerAbility {
  char Vendor[12]; /**< The maker's name, shown in the data source. */
  char ModelName[20]; /**< The model; part of the data-source name. Empty: the library takes the built-in "Test Sample" values. */
  char FirmwareVersion[8]; /**< Firmware version; its first 4 characters end the data-source name. */
  char PortName[12]; /**< The connection ("USB"); one beginning with "SCSI" names the source by DeviceId. */
  char DeviceId[8]; /**< Device number as text. */
  uint8_t HalftonePatternMap[8]; /**< The pattern number sent for halftone choices 1 to 8. */
  uint32_t FeatureFlags; /**< 0x01 source 3 exists; 0x10 colour filter 0 offered; #SX_FEATURE_KEEP_TONE_BETWEEN_PAGES, #SX_FEATURE_KEEP_PARAMS_BETWEEN_PAGES. */
  uint32_t FeatureFlags2; /**< Not read by the library. */
  uint32_t AbilityFlags; /**< Set by the library (bit 0) for a record from GetScannerAbilityEx: the record's own pattern map and alignments are used. */
  uint16_t FlatbedMaxWidth; /**< Flatbed area width, 1/300 inch. */
  uint16_t FlatbedMaxLength; /**< Flatbed area length, 1/300 inch. */
  uint16_t AdfMaxWidth; /**< Feeder area width, 1/300 inch. */
  uint16_t AdfMaxLength; /**< Feeder area length, 1/300 inch. */
  uint16_t MaxResolution; /**< The highest resolution, dots per inch. */
  uint16_t ResolutionLimitA; /**< The horizontal resolutions offered end at the smaller of A and C. */
  uint16_t ResolutionLimitB; /**< The vertical resolutions offered end at the smaller of B and D. */
  uint16_t ResolutionLimitC; /**< See ResolutionLimitA. */
  uint16_t ResolutionLimitD; /**< See ResolutionLimitB. */
  uint8_t PixelTypeFlags; /**< #SX_PIXEL_BW_GRAY, #SX_PIXEL_COLOR (#SX_PIXEL_COLOR_QUERY for the query). */
  uint8_t Reserved63; /**< Not read by the library. */
  uint8_t SourceFlags; /**< #SX_SOURCE_FEEDER_ANY, #SX_SOURCE_FEEDER_TYPES, #SX_SOURCE_SHEETFED_ONLY, #SX_SOURCE_FLATBED, #SX_SOURCE_SOURCE4. */
  uint8_t Reserved65[3]; /**< Not read by the library. */
  uint8_t ModeFlags; /**< Not read by the library. */
  uint8_t OptionFlags; /**< Bit depths offered: 0x80 1, 0x40 4, 0x10 8, 0x08 10, 0x04 12, 0x02 16 bits (with colour 24, 30, 36, 48). */
  uint8_t HalftonePatternCount; /**< Number of halftone patterns. */
  uint8_t DiffusionPatternCount; /**< Number of diffusion patterns. */
  uint8_t LineartAlignment; /**< Line-art lines are a multiple of this many pixels. */
  uint8_t GrayAlignment; /**< The same for grey. */
  uint8_t ColorAlignment; /**< The same for colour. */
  uint8_t HalftoneAlignment; /**< The same for halftone patterns. */
  uint8_t DiffusionAlignment; /**< The same for diffusion patterns. */
  uint8_t Gray4Alignment; /**< The same for 4-bit grey. */
  uint8_t Reserved72[4]; /**< Not read by the library. */
  uint32_t ExtraFlags; /**< #SX_EXTRA_OVERSCAN, #SX_EXTRA_BACKGROUND. */
  uint16_t AltAreaWidth; /**< Area width of the alternate-area sources, 1/300 inch. */
  uint16_t AltAreaLength; /**< Area length of the alternate-area sources, 1/300 inch. */
  uint8_t Reserved7E[16]; /**< Not read by the library. */
} ScannerAbility;

/** The scanner's non-volatile record, read by ReadNVMData and written by
 * WriteNVMData; the library reserves 128 bytes. */
typedef struct NvRam {
  uint32_t PadCount; /**< Kept by the driver; the library only traces it. */
  uint32_t ADFSingleCount; /**< Kept by the driver; the library only traces it. */
  uint32_t ADFDuplexCount; /**< Kept by the driver; the library only traces it. */
  uint32_t PadFBCountCount; /**< Kept by the driver; the library only traces it. */
  uint16_t FBLeadingEdge; /**< Kept by the driver; the library only traces it. */
  uint16_t FBSideEdge; /**< Kept by the driver; the library only traces it. */
  uint16_t ADFFrontLeadingEdge; /**< Kept by the driver; the library only traces it. */
  uint16_t ADFFrontSideEdge; /**< Kept by the driver; the library only traces it. */
  uint16_t ADFRearLeadingEdge; /**< Kept by the driver; the library only traces it. */
  uint16_t ADFRearSideEdge; /**< Kept by the driver; the library only traces it. */
  uint16_t BornMonth; /**< Kept by the driver; the library only traces it. */
  uint16_t BornDay; /**< Kept by the driver; the library only traces it. */
  uint16_t BornYear; /**< Kept by the driver; the library only traces it. */
  uint16_t FirstScanMonth; /**< Kept by the driver; the library only traces it. */
  uint16_t FirstScanDay; /**< Kept by the driver; the library only traces it. */
  uint16_t FirstScanYear; /**< Kept by the driver; the library only traces it. */
  uint16_t VMag; /**< Kept by the driver; the library only traces it. */
  uint16_t HMag; /**< Kept by the driver; the library only traces it. */
  uint8_t CCDType; /**< Kept by the driver; the library only traces it. */
  uint8_t ScanSpeed; /**< Kept by the driver; the library only traces it. */
  char SerialNumber[24]; /**< The serial number (#CAP_SERIALNUMBER); emptied when longer than 24 characters. */
  uint16_t PowerSaveTime; /**< Set by the library to #CAP_ENERGYSAVING before a write. */
  uint8_t Reserved48[128 - 0x48]; /**< Not read by the library. */
} NvRam;

#pragma pack(pop)

/** The argument of ReadScanEx: 16 bytes on i386, 24 on x86-64. */
typedef struct ReadScanRequest {
  uint8_t* Buffer; /**< Where the driver puts the data. */
  uint32_t BytesRequested; /**< Bytes wanted. */
  uint32_t Reserved; /**< Not set by the library. */
  uint32_t BytesReturned; /**< Set to 0 by the library; the driver stores the bytes delivered. */
} ReadScanRequest;

/* Bits of ScannerAbility fields the library tests. */
#define SX_FEATURE_SOURCE3 0x01u /**< FeatureFlags: the third scan source (#CAP_SCANTYPE 3) exists. */
#define SX_FEATURE_FILTER_NONE 0x10u /**< FeatureFlags: the colour filter 0 (none) is offered. */
#define SX_FEATURE_KEEP_TONE_BETWEEN_PAGES 0x01000000u /**< FeatureFlags: the tone tables are not sent again between feeder pages. */
#define SX_FEATURE_KEEP_PARAMS_BETWEEN_PAGES 0x02000000u /**< FeatureFlags: the scan parameters are not sent again between feeder pages. */
#define SX_SOURCE_FEEDER_ANY 0x74u /**< SourceFlags: any of these bits means a document feeder. */
#define SX_SOURCE_FEEDER_TYPES 0x04u /**< SourceFlags: the feeder offers the feeder modes 1 and 2. */
#define SX_SOURCE_SHEETFED_ONLY 0x40u /**< SourceFlags: a sheet-fed scanner without flatbed. */
#define SX_SOURCE_FLATBED 0x80u /**< SourceFlags: a flatbed. */
#define SX_SOURCE_SOURCE4 0x08u /**< SourceFlags: the fourth scan source (#CAP_SCANTYPE 4) exists. */
#define SX_PIXEL_BW_GRAY 0x80u /**< PixelTypeFlags: black and white and grey (with OptionFlags). */
#define SX_PIXEL_COLOR 0x20u /**< PixelTypeFlags: colour, as the acquisition tests it. */
#define SX_PIXEL_COLOR_QUERY 0x60u /**< PixelTypeFlags: colour, as the capability queries test it. */
#define SX_EXTRA_OVERSCAN 0x80u /**< ExtraFlags: overscan is offered. */
#define SX_EXTRA_BACKGROUND 0x100u /**< ExtraFlags: the background option is offered. */

/* Scanner status codes that mean the lamp is still warming up. */
#define SX_STATUS_WARMING_UP 164u /**< The lamp is still warming up (the library shows its warm-up dialog and tries again once). */
#define SX_STATUS_WARMING_UP_EX 2009u /**< The same, in the range 2000 to 2019. */

/* The entry points, each exported under the name after PFN_. */
/** Prepares the driver; nonzero when ready. */
typedef int32_t(SX_DRIVERAPI* PFN_InitializeDriver)(void);
/** Releases the driver before the module is unloaded. */
typedef int32_t(SX_DRIVERAPI* PFN_TerminateDriver)(void);
/** Finds the scanner; nonzero when it is ready. */
typedef int32_t(SX_DRIVERAPI* PFN_InitializeScanner)(void);
/** Three status bytes the library does not read, and the 32-bit status code that explains the last failure. */
typedef int32_t(SX_DRIVERAPI* PFN_GetScannerStatusEx)(uint8_t*, uint8_t*, uint8_t*, uint32_t*);
/** As GetScannerStatusEx, with an 8-bit status; asked when GetScannerStatusEx is missing. */
typedef int32_t(SX_DRIVERAPI* PFN_GetScannerStatus)(uint8_t*, uint8_t*, uint8_t*, uint8_t*);
/** Fills the zeroed ::ScannerAbility. */
typedef int32_t(SX_DRIVERAPI* PFN_GetScannerAbilityEx)(ScannerAbility*);
/** Fills a ::ScannerAbilityBasic. */
typedef int32_t(SX_DRIVERAPI* PFN_GetScannerAbility)(ScannerAbilityBasic*);
/** Sets up the push buttons; the record it gets (24 bytes, zeroed) holds the number of buttons as a 16-bit value at offset 4. */
typedef int32_t(SX_DRIVERAPI* PFN_InitialButton)(uintptr_t);
/** Clears the push-button state. */
typedef int32_t(SX_DRIVERAPI* PFN_ResetPushButton)(void);
/** Fills a 24-byte record: byte 0 bit 0x80 marks a press, byte 1 (low) and byte 6 (high) the button. */
typedef int32_t(SX_DRIVERAPI* PFN_ReadPushButton)(uintptr_t);
/** Uploads one tone table: 256 bytes, the channel, the entry count 256. */
typedef int32_t(SX_DRIVERAPI* PFN_SetGammaTable)(uint8_t*, int32_t, int32_t);
/** Starts the scan of one page. */
typedef int32_t(SX_DRIVERAPI* PFN_StartScan)(void);
/** Reads raster bytes: an unused byte pointer, the destination, the bytes wanted. */
typedef int32_t(SX_DRIVERAPI* PFN_ReadScan)(uint8_t*, uint8_t*, uint32_t);
/** Reads raster bytes as a ::ReadScanRequest says, storing how many came; preferred over ReadScan. */
typedef int32_t(SX_DRIVERAPI* PFN_ReadScanEx)(ReadScanRequest*);
/** Ends the page. */
typedef int32_t(SX_DRIVERAPI* PFN_StopScan)(void);
/** Takes the ::ScanParameter of the next scan; 0 refuses it (the status code says why). */
typedef int32_t(SX_DRIVERAPI* PFN_SetScanParameter)(ScanParameter*);
/** Bound, not called by the library. */
typedef int32_t(SX_DRIVERAPI* PFN_CheckPushButton)(void);
/** The power-save time in the low 16 bits. */
typedef int32_t(SX_DRIVERAPI* PFN_SetPowerSaveTime)(uint32_t);
/** Bound, not called by the library. */
typedef int32_t(SX_DRIVERAPI* PFN_LampOff)(void);
/** Sets the byte to 1 when the feeder holds paper (only 1 counts as paper). */
typedef int32_t(SX_DRIVERAPI* PFN_GetADFStatus)(uint8_t*);
/** Fills the ::NvRam. */
typedef int32_t(SX_DRIVERAPI* PFN_ReadNVMData)(NvRam*);
/** Stores the lamp state; 2 and 3 mean it is still warming up. */
typedef int32_t(SX_DRIVERAPI* PFN_GetLightStatus)(uint8_t*);
/** Bound, not called by the library. */
typedef int32_t(SX_DRIVERAPI* PFN_ChooseSCSIScannerByID)(uint32_t);
/** Adjusts the scan length: 1, the overscan, 1. */
typedef int32_t(SX_DRIVERAPI* PFN_TuneScanLength)(int32_t, int32_t, int32_t);
/** Fills the buffer (first argument) with that many bytes (second) of background raster. */
typedef int32_t(SX_DRIVERAPI* PFN_GetBackgroundRaster)(uintptr_t, uint32_t);
/** Aborts the scan in progress (the person pressed Cancel). */
typedef int32_t(SX_DRIVERAPI* PFN_DoCancel)(void);
/** Writes the ::NvRam back. */
typedef int32_t(SX_DRIVERAPI* PFN_WriteNVMData)(NvRam*);

#ifdef __cplusplus
static_assert(sizeof(ScanParameter) == 72, "ScanParameter is 72 bytes");
static_assert(offsetof(ScanParameter, PixelNum) == 0x08, "layout");
static_assert(offsetof(ScanParameter, ScanMode) == 0x0C, "layout");
static_assert(offsetof(ScanParameter, Contrast) == 0x10, "layout");
static_assert(offsetof(ScanParameter, HTPatternNo) == 0x12, "layout");
static_assert(offsetof(ScanParameter, ColorFilter) == 0x15, "layout");
static_assert(offsetof(ScanParameter, ExtScanParam) == 0x18, "layout");
static_assert(offsetof(ScanParameter, RExposure) == 0x1A, "layout");
static_assert(offsetof(ScanParameter, XRes) == 0x20, "layout");
static_assert(offsetof(ScanParameter, YRes) == 0x22, "layout");
static_assert(offsetof(ScanParameter, BackgroundLines) == 0x2C, "layout");
static_assert(offsetof(ScanParameter, ExtensionFlag) == 0x3E, "layout");
static_assert(sizeof(ScannerAbilityBasic) == 44, "ScannerAbilityBasic is 44 bytes");
static_assert(offsetof(ScannerAbilityBasic, HasExtendedAbility) == 0x13, "layout");
static_assert(offsetof(ScannerAbilityBasic, DefaultAreaWidth) == 0x16, "layout");
static_assert(offsetof(ScannerAbilityBasic, DefaultAreaLength) == 0x18, "layout");
static_assert(sizeof(ScannerAbility) == 142, "ScannerAbility is 142 bytes");
static_assert(offsetof(ScannerAbility, ModelName) == 0x0C, "layout");
static_assert(offsetof(ScannerAbility, FirmwareVersion) == 0x20, "layout");
static_assert(offsetof(ScannerAbility, PortName) == 0x28, "layout");
static_assert(offsetof(ScannerAbility, DeviceId) == 0x34, "layout");
static_assert(offsetof(ScannerAbility, HalftonePatternMap) == 0x3C, "layout");
static_assert(offsetof(ScannerAbility, FeatureFlags) == 0x44, "layout");
static_assert(offsetof(ScannerAbility, AbilityFlags) == 0x4C, "layout");
static_assert(offsetof(ScannerAbility, FlatbedMaxWidth) == 0x50, "layout");
static_assert(offsetof(ScannerAbility, MaxResolution) == 0x58, "layout");
static_assert(offsetof(ScannerAbility, ResolutionLimitD) == 0x60, "layout");
static_assert(offsetof(ScannerAbility, PixelTypeFlags) == 0x62, "layout");
static_assert(offsetof(ScannerAbility, SourceFlags) == 0x64, "layout");
static_assert(offsetof(ScannerAbility, ModeFlags) == 0x68, "layout");
static_assert(offsetof(ScannerAbility, OptionFlags) == 0x69, "layout");
static_assert(offsetof(ScannerAbility, HalftonePatternCount) == 0x6A, "layout");
static_assert(offsetof(ScannerAbility, LineartAlignment) == 0x6C, "layout");
static_assert(offsetof(ScannerAbility, Gray4Alignment) == 0x71, "layout");
static_assert(offsetof(ScannerAbility, ExtraFlags) == 0x76, "layout");
static_assert(offsetof(ScannerAbility, AltAreaWidth) == 0x7A, "layout");
static_assert(offsetof(ScannerAbility, AltAreaLength) == 0x7C, "layout");
static_assert(sizeof(NvRam) == 128, "NvRam is 128 bytes");
static_assert(offsetof(NvRam, FBLeadingEdge) == 0x10, "layout");
static_assert(offsetof(NvRam, BornMonth) == 0x1C, "layout");
static_assert(offsetof(NvRam, VMag) == 0x28, "layout");
static_assert(offsetof(NvRam, CCDType) == 0x2C, "layout");
static_assert(offsetof(NvRam, SerialNumber) == 0x2E, "layout");
static_assert(offsetof(NvRam, PowerSaveTime) == 0x46, "layout");
static_assert(offsetof(ReadScanRequest, BytesRequested) == sizeof(void*), "layout");
static_assert(offsetof(ReadScanRequest, BytesReturned) == sizeof(void*) + 8, "layout");
static_assert(sizeof(ReadScanRequest) == (sizeof(void*) == 8 ? 24 : 16), "layout");
#endif

#endif /* SXDRIVER_H */
