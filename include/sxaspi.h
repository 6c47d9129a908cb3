/**
 * @file sxaspi.h
 * @brief For ASPI module authors: the SCSI layer sxscan asks for scanners: the two entry points and
 * the request blocks of ASPI for Win32, as a module "wnaspi32.dll" in the
 * system folder exports them with C linkage (caller-cleans convention).
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

#define SC_HA_INQUIRY 0x00 /**< SRB_Cmd of a host adapter inquiry. */
#define SC_EXEC_SCSI_CMD 0x02 /**< SRB_Cmd of a SCSI command. */

#define SS_PENDING 0x00 /**< The request is still running. */
#define SS_COMP 0x01 /**< Completed without error. */
#define SS_ABORTED 0x02 /**< Aborted. */
#define SS_ERR 0x04 /**< Completed with an error. */
#define SS_INVALID_CMD 0x80 /**< Not a request the module knows. */
#define SS_INVALID_HA 0x81 /**< No such host adapter. */
#define SS_NO_DEVICE 0x82 /**< No device at that target. */
#define SS_NO_ADAPTERS 0xE8 /**< No host adapter at all. */

#define SRB_POSTING 0x01 /**< SRB_Flags: call SRB_PostProc on completion. */
#define SRB_DIR_IN 0x08 /**< SRB_Flags: data from the target to the host. */
#define SRB_DIR_OUT 0x10 /**< SRB_Flags: data from the host to the target. */

#define SENSE_LEN 14 /**< Bytes of sense data. */

#pragma pack(push, 1)

/** Host adapter inquiry, 60 bytes. */
typedef struct SRB_HAInquiry {
  uint8_t SRB_Cmd; /**< #SC_HA_INQUIRY. */
  uint8_t SRB_Status; /**< #SS_PENDING until done, then the outcome. */
  uint8_t SRB_HaId; /**< The host adapter. */
  uint8_t SRB_Flags; /**< Not used. */
  uint32_t SRB_Hdr_Rsvd; /**< Zero. */
  uint8_t HA_Count; /**< Number of host adapters. */
  uint8_t HA_SCSI_ID; /**< The adapter's own SCSI identifier. */
  uint8_t HA_ManagerId[16]; /**< The ASPI manager, as text. */
  uint8_t HA_Identifier[16]; /**< The adapter's identifier, as text. */
  uint8_t HA_Unique[16]; /**< Adapter details. */
  uint16_t HA_Rsvd1; /**< Zero. */
} SRB_HAInquiry;

/** Execute a SCSI command: 80 bytes on i386, 88 on x86-64. */
typedef struct SRB_ExecSCSICmd {
  uint8_t SRB_Cmd; /**< #SC_EXEC_SCSI_CMD. */
  uint8_t SRB_Status; /**< #SS_PENDING until done, then the outcome (stored last). */
  uint8_t SRB_HaId; /**< The host adapter. */
  uint8_t SRB_Flags; /**< #SRB_DIR_IN, #SRB_DIR_OUT, #SRB_POSTING. */
  uint32_t SRB_Hdr_Rsvd; /**< Zero. */
  uint8_t SRB_Target; /**< The target. */
  uint8_t SRB_Lun; /**< The logical unit. */
  uint16_t SRB_Rsvd1; /**< Zero. */
  uint32_t SRB_BufLen; /**< Bytes of the data buffer. */
  uint8_t* SRB_BufPointer; /**< The data buffer. */
  uint8_t SRB_SenseLen; /**< Room for sense data. */
  uint8_t SRB_CDBLen; /**< Bytes of the command block. */
  uint8_t SRB_HaStat; /**< The adapter's status. */
  uint8_t SRB_TargStat; /**< The target's status. */
  void* SRB_PostProc; /**< Called on completion with #SRB_POSTING. */
  uint8_t SRB_Rsvd2[20]; /**< Zero. */
  uint8_t CDBByte[16]; /**< The command block. */
  uint8_t SenseArea[SENSE_LEN + 2]; /**< Sense data. */
} SRB_ExecSCSICmd;

#pragma pack(pop)

/** GetASPI32SupportInfo. */
typedef uint32_t (*SxGetAspiSupportInfoFn)(void);
/** SendASPI32Command. */
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
