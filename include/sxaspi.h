/* sxaspi — the SCSI layer sxscan asks for scanners: the two entry points and
 * the request blocks of ASPI for Win32, as a module "wnaspi32.dll" in the
 * system folder exports them with C linkage.
 *
 * uint32_t GetASPI32SupportInfo(void);
 *   bits 15..8: SS_COMP when host adapters are present, else SS_NO_ADAPTERS;
 *   bits 7..0: the number of host adapters.
 * uint32_t SendASPI32Command(void* srb);
 *   takes an SRB_HAInquiry (SRB_Cmd SC_HA_INQUIRY, answered before it
 *   returns) or an SRB_ExecSCSICmd (SRB_Cmd SC_EXEC_SCSI_CMD). A command may
 *   complete later: SRB_Status stays SS_PENDING until the module stores the
 *   final status there, which the caller polls. A module that completes a
 *   request from another thread stores SRB_Status last, with release order,
 *   after the data, sense and adapter/target status bytes.
 *
 * The blocks are byte-packed; on x86-64 only the two address fields of
 * SRB_ExecSCSICmd widen, which moves the fields after them. */
#ifndef SXASPI_H
#define SXASPI_H

#include <stddef.h>
#include <stdint.h>

#define SC_HA_INQUIRY 0x00
#define SC_EXEC_SCSI_CMD 0x02

#define SS_PENDING 0x00
#define SS_COMP 0x01
#define SS_ABORTED 0x02
#define SS_ERR 0x04
#define SS_INVALID_CMD 0x80
#define SS_INVALID_HA 0x81
#define SS_NO_DEVICE 0x82
#define SS_NO_ADAPTERS 0xE8

#define SRB_POSTING 0x01
#define SRB_DIR_IN 0x08  /* data from the target to the host */
#define SRB_DIR_OUT 0x10 /* data from the host to the target */

#define SENSE_LEN 14

#pragma pack(push, 1)

/* Host adapter inquiry, 60 bytes. */
typedef struct SRB_HAInquiry {
  uint8_t SRB_Cmd; /* SC_HA_INQUIRY */
  uint8_t SRB_Status;
  uint8_t SRB_HaId;
  uint8_t SRB_Flags;
  uint32_t SRB_Hdr_Rsvd;
  uint8_t HA_Count;
  uint8_t HA_SCSI_ID;
  uint8_t HA_ManagerId[16];
  uint8_t HA_Identifier[16];
  uint8_t HA_Unique[16];
  uint16_t HA_Rsvd1;
} SRB_HAInquiry;

/* Execute a SCSI command: 80 bytes on i386, 88 on x86-64. */
typedef struct SRB_ExecSCSICmd {
  uint8_t SRB_Cmd; /* SC_EXEC_SCSI_CMD */
  uint8_t SRB_Status;
  uint8_t SRB_HaId;
  uint8_t SRB_Flags;
  uint32_t SRB_Hdr_Rsvd;
  uint8_t SRB_Target;
  uint8_t SRB_Lun;
  uint16_t SRB_Rsvd1;
  uint32_t SRB_BufLen;
  uint8_t* SRB_BufPointer;
  uint8_t SRB_SenseLen;
  uint8_t SRB_CDBLen;
  uint8_t SRB_HaStat;
  uint8_t SRB_TargStat;
  void* SRB_PostProc;
  uint8_t SRB_Rsvd2[20];
  uint8_t CDBByte[16];
  uint8_t SenseArea[SENSE_LEN + 2];
} SRB_ExecSCSICmd;

#pragma pack(pop)

typedef uint32_t (*SxGetAspiSupportInfoFn)(void);
typedef uint32_t (*SxSendAspiCommandFn)(void* srb);

#ifdef __cplusplus
static_assert(sizeof(SRB_HAInquiry) == 60, "SRB_HAInquiry is 60 bytes");
static_assert(offsetof(SRB_HAInquiry, HA_Count) == 8, "layout");
static_assert(offsetof(SRB_HAInquiry, HA_Identifier) == 26, "layout");
static_assert(offsetof(SRB_HAInquiry, HA_Rsvd1) == 58, "layout");
static_assert(offsetof(SRB_ExecSCSICmd, SRB_Target) == 8, "layout");
static_assert(offsetof(SRB_ExecSCSICmd, SRB_BufLen) == 12, "layout");
static_assert(offsetof(SRB_ExecSCSICmd, SRB_BufPointer) == 16, "layout");
static_assert(offsetof(SRB_ExecSCSICmd, SRB_SenseLen) == 16 + sizeof(void*), "layout");
static_assert(offsetof(SRB_ExecSCSICmd, SRB_PostProc) == 20 + sizeof(void*), "layout");
static_assert(offsetof(SRB_ExecSCSICmd, CDBByte) == 40 + 2 * sizeof(void*), "layout");
static_assert(offsetof(SRB_ExecSCSICmd, SenseArea) == 56 + 2 * sizeof(void*), "layout");
static_assert(sizeof(SRB_ExecSCSICmd) == 72 + 2 * sizeof(void*), "80 bytes on i386");
#endif

#endif /* SXASPI_H */
