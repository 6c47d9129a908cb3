/* sxdriver — the binary interface between sxscan and a scanner driver module.
 *
 * A driver module is a shared object named "<model>.dll" that exports the
 * entry points below with C linkage. Every entry point returns a signed 32-bit
 * value, non-zero for success. Records are little-endian with fixed offsets;
 * on x86-64 only fields that hold an address widen. */
#ifndef SXDRIVER_H
#define SXDRIVER_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#define SX_DRIVERAPI __stdcall
#elif defined(__i386__)
#define SX_DRIVERAPI __attribute__((stdcall))
#else
#define SX_DRIVERAPI
#endif

#pragma pack(push, 1)

/* The description of the next scan, 72 bytes. */
typedef struct ScanParameter {
  uint16_t Left;
  uint16_t Top;
  uint16_t Width;
  uint16_t Length;
  uint16_t PixelNum;
  uint16_t LineNum;
  uint8_t ScanMode;     /* 0 line art, 1 halftone, 2 gray, 4 colour */
  uint8_t ScanMethod;   /* 0 flatbed, 1/4/5 feeder modes, 2/3 alternate-area sources */
  uint8_t BitsPerPixel;
  uint8_t ScanSpeed;
  int8_t Contrast;
  int8_t Brightness;
  uint8_t HTPatternNo;
  uint8_t Highlight;
  uint8_t Shadow;
  uint8_t ColorFilter;
  uint8_t Invert;
  uint8_t ReadStatus;
  uint16_t ExtScanParam;
  uint16_t RExposure;
  uint16_t GExposure;
  uint16_t BExposure;
  uint16_t XRes;
  uint16_t YRes;
  uint8_t Reserved24[8];
  uint8_t BackgroundLines;
  uint8_t Reserved2D[17];
  uint8_t ExtensionFlag;
  uint8_t Reserved3F[9];
} ScanParameter;

/* Basic abilities, 44 bytes; the library reads three fields. */
typedef struct ScannerAbilityBasic {
  uint8_t Reserved00[0x13];
  uint8_t HasExtendedAbility;
  uint8_t Reserved14[2];
  uint16_t DefaultAreaWidth;
  uint16_t DefaultAreaLength;
  uint8_t Reserved1A[0x12];
} ScannerAbilityBasic;

/* Extended abilities, 142 bytes. */
typedef struct ScannerAbility {
  char Vendor[12];
  char ModelName[20];
  char FirmwareVersion[8];
  char PortName[12];
  char DeviceId[8];
  uint8_t HalftonePatternMap[8];
  uint32_t FeatureFlags;
  uint32_t FeatureFlags2;
  uint32_t AbilityFlags;
  uint16_t FlatbedMaxWidth;
  uint16_t FlatbedMaxLength;
  uint16_t AdfMaxWidth;
  uint16_t AdfMaxLength;
  uint16_t MaxResolution;
  uint16_t ResolutionLimitA;
  uint16_t ResolutionLimitB;
  uint16_t ResolutionLimitC;
  uint16_t ResolutionLimitD;
  uint8_t PixelTypeFlags;
  uint8_t Reserved63;
  uint8_t SourceFlags;
  uint8_t Reserved65[3];
  uint8_t ModeFlags;
  uint8_t OptionFlags;
  uint8_t HalftonePatternCount;
  uint8_t DiffusionPatternCount;
  uint8_t LineartAlignment;
  uint8_t GrayAlignment;
  uint8_t ColorAlignment;
  uint8_t HalftoneAlignment;
  uint8_t DiffusionAlignment;
  uint8_t Gray4Alignment;
  uint8_t Reserved72[4];
  uint32_t ExtraFlags;
  uint16_t AltAreaWidth;
  uint16_t AltAreaLength;
  uint8_t Reserved7E[16];
} ScannerAbility;

/* The scanner's non-volatile record; the library reserves 128 bytes. */
typedef struct NvRam {
  uint32_t PadCount;
  uint32_t ADFSingleCount;
  uint32_t ADFDuplexCount;
  uint32_t PadFBCountCount;
  uint16_t FBLeadingEdge;
  uint16_t FBSideEdge;
  uint16_t ADFFrontLeadingEdge;
  uint16_t ADFFrontSideEdge;
  uint16_t ADFRearLeadingEdge;
  uint16_t ADFRearSideEdge;
  uint16_t BornMonth;
  uint16_t BornDay;
  uint16_t BornYear;
  uint16_t FirstScanMonth;
  uint16_t FirstScanDay;
  uint16_t FirstScanYear;
  uint16_t VMag;
  uint16_t HMag;
  uint8_t CCDType;
  uint8_t ScanSpeed;
  char SerialNumber[24];
  uint16_t PowerSaveTime;
  uint8_t Reserved48[128 - 0x48];
} NvRam;

#pragma pack(pop)

/* The argument of ReadScanEx: 16 bytes on i386, 24 on x86-64. */
typedef struct ReadScanRequest {
  uint8_t* Buffer;
  uint32_t BytesRequested;
  uint32_t Reserved;
  uint32_t BytesReturned;
} ReadScanRequest;

/* Bits of ScannerAbility fields the library tests. */
#define SX_FEATURE_SOURCE3 0x01u
#define SX_FEATURE_FILTER_NONE 0x10u
#define SX_FEATURE_KEEP_TONE_BETWEEN_PAGES 0x01000000u
#define SX_FEATURE_KEEP_PARAMS_BETWEEN_PAGES 0x02000000u
#define SX_SOURCE_FEEDER_ANY 0x74u
#define SX_SOURCE_FEEDER_TYPES 0x04u
#define SX_SOURCE_SHEETFED_ONLY 0x40u
#define SX_SOURCE_FLATBED 0x80u
#define SX_SOURCE_SOURCE4 0x08u
#define SX_PIXEL_BW_GRAY 0x80u
#define SX_PIXEL_COLOR 0x20u
#define SX_PIXEL_COLOR_QUERY 0x60u
#define SX_EXTRA_OVERSCAN 0x80u
#define SX_EXTRA_BACKGROUND 0x100u

/* Scanner status codes that mean the lamp is still warming up. */
#define SX_STATUS_WARMING_UP 164u
#define SX_STATUS_WARMING_UP_EX 2009u

/* Entry-point signatures. */
typedef int32_t(SX_DRIVERAPI* PFN_InitializeDriver)(void);
typedef int32_t(SX_DRIVERAPI* PFN_TerminateDriver)(void);
typedef int32_t(SX_DRIVERAPI* PFN_InitializeScanner)(void);
typedef int32_t(SX_DRIVERAPI* PFN_GetScannerStatusEx)(uint8_t*, uint8_t*, uint8_t*, uint32_t*);
typedef int32_t(SX_DRIVERAPI* PFN_GetScannerStatus)(uint8_t*, uint8_t*, uint8_t*, uint8_t*);
typedef int32_t(SX_DRIVERAPI* PFN_GetScannerAbilityEx)(ScannerAbility*);
typedef int32_t(SX_DRIVERAPI* PFN_GetScannerAbility)(ScannerAbilityBasic*);
typedef int32_t(SX_DRIVERAPI* PFN_InitialButton)(uintptr_t);
typedef int32_t(SX_DRIVERAPI* PFN_ResetPushButton)(void);
typedef int32_t(SX_DRIVERAPI* PFN_ReadPushButton)(uintptr_t);
typedef int32_t(SX_DRIVERAPI* PFN_SetGammaTable)(uint8_t*, int32_t, int32_t);
typedef int32_t(SX_DRIVERAPI* PFN_StartScan)(void);
typedef int32_t(SX_DRIVERAPI* PFN_ReadScan)(uint8_t*, uint8_t*, uint32_t);
typedef int32_t(SX_DRIVERAPI* PFN_ReadScanEx)(ReadScanRequest*);
typedef int32_t(SX_DRIVERAPI* PFN_StopScan)(void);
typedef int32_t(SX_DRIVERAPI* PFN_SetScanParameter)(ScanParameter*);
typedef int32_t(SX_DRIVERAPI* PFN_CheckPushButton)(void);
typedef int32_t(SX_DRIVERAPI* PFN_SetPowerSaveTime)(uint32_t);
typedef int32_t(SX_DRIVERAPI* PFN_LampOff)(void);
typedef int32_t(SX_DRIVERAPI* PFN_GetADFStatus)(uint8_t*);
typedef int32_t(SX_DRIVERAPI* PFN_ReadNVMData)(NvRam*);
typedef int32_t(SX_DRIVERAPI* PFN_GetLightStatus)(uint8_t*);
typedef int32_t(SX_DRIVERAPI* PFN_ChooseSCSIScannerByID)(uint32_t);
typedef int32_t(SX_DRIVERAPI* PFN_TuneScanLength)(int32_t, int32_t, int32_t);
typedef int32_t(SX_DRIVERAPI* PFN_GetBackgroundRaster)(uintptr_t, uint32_t);
typedef int32_t(SX_DRIVERAPI* PFN_DoCancel)(void);
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
