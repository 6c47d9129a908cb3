/**
 * @file sxscan.h
 * @brief The scan library's interface for hosts: eight functions, the
 * capability codes and value types, the records and the transfer callback.
 *
 * A host links libsxscan.so (on Windows sxscan.dll through its import
 * library), includes this header and sxsys.h, and drives a scanner in this
 * order (the page @ref writing-a-host walks through it with a whole program):
 *
 *  1. SxLoad() opens the data source stored by an earlier SxSetDriverById().
 *     When it answers #SX_ERR_NO_SOURCE the host enumerates the sources with
 *     SxGetDS() (#SX_DS_FIRST, then #SX_DS_NEXT until #SX_ERR_NO_SOURCE) and
 *     opens one with SxSetDriverById().
 *  2. SxQueryData() lists the values a capability takes with that scanner,
 *     SxGetValue() reads the current value and SxSetValue() changes it.
 *     Opening a source (SxLoad(), SxSetDriverById()) resets every setting to
 *     its stored default, so settings are changed after it.
 *  3. SxAcquire() runs one acquisition: one flatbed page, or feeder pages one
 *     after the other. The raster arrives through the host's
 *     ::SxTransferCallback. It may be called again for the next acquisition.
 *  4. SxFree() ends the work: it releases the driver, the source list, the
 *     settings' buffers and the library's worker threads (see SxFree() for
 *     what this means for buffered acquisitions).
 *
 * @par Threads
 * The eight functions are called from one thread at a time and never while
 * another of them runs: a call made while one is running (from a second
 * thread, or from inside the transfer callback or a dialog observer) is
 * refused at once. It answers #SX_ERR_DRIVER and changes nothing, except
 * SxQueryData(), which answers #SX_OK with an empty list. The transfer
 * callback always runs on the thread that called SxAcquire(), in both
 * transfer modes. The functions of sxsys.h may be called from any thread at
 * any time.
 *
 * @par Result codes
 * Every function returns a signed 32-bit result: #SX_OK (0) for success, a
 * negative code for a failure. Beside the codes defined here, SxAcquire() and
 * SxGetValue() pass on what the driver reports, mapped from its status code
 * (#SX_STATUS_WARMING_UP and the rest in sxdriver.h):
 * | result | driver status codes |
 * |---|---|
 * | -6 | 1, 3, 128, 130, 2004 |
 * | -8 (#SX_ERR_NO_COLOR) | 2005 |
 * | -9 (#SX_ERR_NO_MEMORY) | 127, 2006 |
 * | -12 | 103, 2013 |
 * | -17 | 104, 2014 |
 * | -20 | 2010 |
 * | -22, the lamp is still warming up | 108, 164, 2007, 2009 |
 * | -23 (#SX_ERR_NO_ASPI) | 124, 125, 2018 |
 * | -27 | 101, 129, 132, 2008, 2019 |
 * | -28 | 250, 2000, 2001, 2002 |
 * | -30 | 151 |
 * | 131 and 2003, unchanged (the only positive results) | 131, 2003 |
 * | #SX_ERR_DRIVER (-4) | any other status |
 *
 * @par Records
 * Every record keeps its 32-bit Windows layout on i386; on x86-64 only
 * fields that hold an address widen to 8 bytes. Records and values are
 * little-endian.
 */
#ifndef SXSCAN_H
#define SXSCAN_H

#include <stddef.h>
#include <stdint.h>

/** The calling convention of the exported functions and of the transfer
 * callback: the standard convention of the 32-bit system (the callee removes
 * the arguments), __stdcall on Windows (x86-64 ignores it) and on i386, the
 * platform's default elsewhere. A host declares its callback with it. */
#if defined(_WIN32)
#define SX_API __stdcall
#elif defined(__i386__)
#define SX_API __attribute__((stdcall))
#else
#define SX_API
#endif

/** C linkage for the declarations of the public headers when they are
 * included from C++. */
#ifdef __cplusplus
#define SX_EXTERN_C extern "C"
#else
#define SX_EXTERN_C
#endif

/** Marks an exported function. On Windows the DLL's exports are named by its
 * .def file (undecorated, as hosts look them up) and a host sees plain
 * declarations; on Linux the functions have default visibility. */
#if defined(_WIN32)
#define SX_EXPORT SX_EXTERN_C
#else
#define SX_EXPORT SX_EXTERN_C __attribute__((visibility("default")))
#endif

/** @defgroup results Result codes
 * What the functions return. Which code a function gives for which
 * condition is told with each function; the driver's own codes are mapped as
 * the table of sxscan.h shows.
 * @{ */
/** Success. */
#define SX_OK 0
/** A driver call failed or a driver could not be loaded or initialised; an
 * unknown data source (SxSetDriverById()); a request SxAcquire() cannot run
 * (no source bound, no callback or buffer, buffered mode unavailable, a
 * transfer buffer too small); a call refused because another one is running. */
#define SX_ERR_DRIVER (-4)
/** The person pressed Cancel in the library's progress dialog. */
#define SX_ERR_CANCELLED (-5)
/** A capability that cannot be set or read that way (SxSetValue(),
 * SxGetValue()); settings the acquisition's check refuses (SxAcquire()). */
#define SX_ERR_UNSUPPORTED (-7)
/** Colour (#CAP_PIXELTYPE 2) asked of a scanner without colour. */
#define SX_ERR_NO_COLOR (-8)
/** No memory for the acquisition's scaling tables. */
#define SX_ERR_NO_MEMORY (-9)
/** No data source: none installed, none left in the enumeration, or none
 * matching the stored choice. */
#define SX_ERR_NO_SOURCE (-10)
/** No paper in the feeder for a feeder scan. */
#define SX_ERR_NO_PAPER (-16)
/** The driver reported a failed connection (mapped from its status). */
#define SX_ERR_NO_ASPI (-23)
/** @} */

/** @defgroup messages Messages of SxGetDS
 * @{ */
/** Builds the source list if it does not exist yet and delivers its first
 * entry. */
#define SX_DS_FIRST 2
/** Delivers the entry after the one delivered last. */
#define SX_DS_NEXT 3
/** @} */

/** @defgroup valuetypes Value types
 * How the host represents a value it passes or wants back. Every capability
 * has a native type (told with each code); the library converts between it
 * and the host's type:
 *  - any numeric type to any numeric type: integers are sign- or
 *    zero-extended as their type says, or cut to their low bits; reals are
 *    truncated toward zero when they become integers;
 *  - text to text (#TY_STR32, #TY_STR64 and #TY_STR128 as sources; all four
 *    as destinations), cut to the destination's room and always ending in NUL;
 *  - text to number and number to text: nothing is converted.
 * A value that is not converted leaves the setting (SxSetValue()) or the
 * host's variable (SxGetValue()) unchanged, and the call still answers
 * #SX_OK. So does a code that is no value type. Only the low 16 bits of a
 * type argument count.
 *
 * The byte sizes below are the room a value of the type takes: what
 * SxGetValue() may write, and the distance between the items of an
 * ::SxValueList. A #TY_UINT8 item takes 2 bytes (the value in the first);
 * SxGetValue() writes one byte for it. A code that is no value type has
 * items of 2 bytes, left zero.
 * @{ */
#define TY_INT16 0x8010   /**< Signed 16-bit integer; 2 bytes. */
#define TY_INT32 0x8011   /**< Signed 32-bit integer; 4 bytes. */
#define TY_FLOAT32 0x8012 /**< IEEE single-precision number; 4 bytes. */
#define TY_UINT16 0x8013  /**< Unsigned 16-bit integer; 2 bytes. */
#define TY_STR32 0x8014   /**< Text, NUL-terminated; 33 bytes. */
#define TY_STR64 0x8015   /**< Text, NUL-terminated; 65 bytes. */
#define TY_STR128 0x8016  /**< Text, NUL-terminated; 129 bytes. */
/** Text, NUL-terminated; 256 bytes. A destination only: a value passed in
 * this type is never converted. */
#define TY_STR255 0x8017
#define TY_UINT8 0x8018  /**< Unsigned 8-bit integer; 2 bytes in a list. */
#define TY_UINT32 0x8019 /**< Unsigned 32-bit integer; 4 bytes. */
/** @} */

/** @defgroup capabilities Capability codes
 * The settings and facts a host reads, changes and lists. For each code:
 * its native type, what SxSetValue() (set), SxGetValue() (get) and
 * SxQueryData() (query, with the form of its list) do, and the values it
 * takes. Unless told otherwise a capability can be set, read and queried,
 * set and get simply store and read the current value, and the value is
 * reset to its stored default whenever a source is opened.
 *
 * SxSetValue() checks no value against the lists: it stores what it is given
 * (converted to the native type), and the acquisition's check refuses what
 * cannot be scanned (see SxAcquire()). A code not listed here is ignored by
 * all three functions with #SX_OK; the codes 0x9102, 0x9301 and 0x9302
 * answer #SX_ERR_UNSUPPORTED to set and get. Only the low 16 bits of a
 * capability argument count.
 * @{ */
/** Set only (the value is not read): makes the dialogs' font again from the
 * localisation profile. Get: nothing, #SX_OK. Query: empty. */
#define CAP_LOCALIZE 0x9000
/** #TY_STR32, read only: the scanner's model name. Query: enumeration of the
 * one name. Set: #SX_ERR_UNSUPPORTED. */
#define CAP_MODELNAME 0x9004
/** #TY_STR32, read only: the scanner's serial number (empty when the
 * scanner reports none that fits). As #CAP_MODELNAME. */
#define CAP_SERIALNUMBER 0x9005
/** #TY_STR32, read only: the scanner's firmware version. As #CAP_MODELNAME. */
#define CAP_FIRMWAREVERSION 0x9006
/** #TY_UINT8, the transfer mode: 0 direct, nonzero buffered (default 0).
 * Query: enumeration 0, 1.
 *
 * Direct mode runs the whole acquisition on the host's thread, block by
 * block in the host's transfer buffer; the host's answer to code
 * #SX_XFER_IMAGE_INFO chooses the block size. Buffered mode reads and
 * processes the raster on two worker threads of the library, in blocks of up
 * to one mebibyte raw, while the host's thread delivers them; each block is
 * copied into the host's buffer, which must hold the largest (see
 * SxImageInfo::BufferSizeHint).
 *
 * Setting a nonzero value builds the ring of buffers for buffered mode: 2 to
 * 10 buffers (as many as 60 % of the available memory holds, within those
 * bounds) of the stored MINBUFFER bytes, 1 MiB by default and never less.
 * Setting 0 releases it. The value is kept when a source is opened and
 * across SxFree(); after SxFree() buffered acquisitions answer
 * #SX_ERR_DRIVER until the library is unloaded, so a host that goes on
 * after SxFree() sets 0 here. */
#define CAP_BUFFERING 0x9007
/** #TY_UINT8, the background option, 0 or 1. Query: enumeration 0, and 1
 * when the scanner has it. */
#define CAP_BACKGROUND 0x9008
/** #TY_INT16, the scanner's power-save time (default 15). Set: also hands it
 * to the scanner at once; SxFree() hands it over again. Query: an empty list,
 * and it sets the scanner's power-save time to 0. */
#define CAP_ENERGYSAVING 0x9009
/** #TY_UINT8, the user-interface control flag. Query: enumeration 0. */
#define CAP_UICONTROL 0x9050
/** #TY_UINT8, nonzero to show the library's progress and lamp warm-up
 * dialogs during an acquisition (default 0). Query: enumeration 0. */
#define CAP_INDICATORS 0x9051
/** #TY_INT32, the size in bytes of each buffer of buffered mode. Set: builds
 * the ring with buffers of this size when none exists (whatever
 * #CAP_BUFFERING holds), or enlarges the buffers of the existing one; a size
 * below 1 MiB counts as 1 MiB. Get: #SX_ERR_UNSUPPORTED. Query: default, the
 * stored MINBUFFER (1048576 when none is stored). */
#define CAP_MINBUFFER 0x9052
/** #TY_INT16, get only: the number of the scanner button pressed since the
 * last read, 0 for none; reading it resets the buttons. Query: enumeration
 * 0, 1 ... the number of buttons (and it initialises the buttons). Set:
 * #SX_ERR_UNSUPPORTED. */
#define CAP_PUSHBUTTON 0x9053
/** #TY_UINT8, the source of the scan: 0 automatic (the feeder when paper is
 * loaded, else the flatbed), 1 the document feeder, 2 the flatbed, 3 and 4
 * the two sources of the scanner's alternate area. Default: the stored
 * SCANTYPE fitted to the scanner, 0 when none is stored. Query: enumeration
 * of the sources 1 to 4 the scanner has (0 is accepted, never listed). */
#define CAP_SCANTYPE 0x9100
/** #TY_UINT8, the feeder mode 0, 1 or 2. Query: enumeration 0, and 1, 2
 * when the scanner's feeder has modes. */
#define CAP_FEEDERTYPE 0x9101
/** #TY_UINT16, the resolution in dots per inch (default 300, or the
 * scanner's maximum when that is lower). Query: range 50, the scanner's
 * limit, 1. */
#define CAP_XRESOLUTION 0x9200
/** #TY_UINT16, the vertical resolution. Query: range as #CAP_XRESOLUTION.
 * An acquisition scans square pixels: its check sets this to
 * #CAP_XRESOLUTION, and SxImageInfo::ResolutionY tells the same. */
#define CAP_YRESOLUTION 0x9201
/** #TY_UINT8, the pixel type: 0 line art (black and white), 1 grey, 2
 * colour (default 0). Query: enumeration of the types the scanner has. The
 * raster's layout follows it (see ::SxImageInfo). */
#define CAP_PIXELTYPE 0x9202
/** #TY_UINT8, the scanner's bits per pixel, reported in
 * SxImageInfo::BitsPerPixel (default 1, 8 or 24 for pixel type 0, 1 or 2).
 * Query: enumeration, in this order where the scanner has them: 1, 4, 8
 * (then 24 with colour), 10 (30), 12 (36), 16 (48). */
#define CAP_BITSPERPIXEL 0x9203
/** #TY_UINT32 (a signed value), brightness -1000 to 1000 of the channel
 * #CAP_FILTER chooses (default 0). Query: range -1000, 1000, 10. */
#define CAP_BRIGHTNESS 0x9204
/** #TY_UINT32 (a signed value), contrast -1000 to 1000 of the channel
 * #CAP_FILTER chooses (default 0). Query: range -1000, 1000, 10. */
#define CAP_CONTRAST 0x9205
/** #TY_UINT8, the input level that becomes white, of the channel #CAP_FILTER
 * chooses (default 255). Query: range 1, 255, 1. */
#define CAP_HIGHLIGHT 0x9206
/** #TY_UINT8, the input level that becomes black, of the channel #CAP_FILTER
 * chooses (default 0). Query: range 0, 254, 1. */
#define CAP_SHADOW 0x9207
/** #TY_FLOAT32, the gamma of the channel #CAP_FILTER chooses (default 2.2
 * for all channels together, 1.0 for red, green and blue), held in
 * hundredths: 2.25 reads back as 2.25, 2.257 as 2.25. Query: any (count -1). */
#define CAP_GAMMA 0x9208
/** #TY_UINT8, the channel the tone capabilities (#CAP_BRIGHTNESS to
 * #CAP_GAMMA) address: 0 all channels together, 1 red, 2 green, 3 blue; it
 * is also the colour a grey or line-art scan is taken from (default 2). With
 * a value above 3 the tone capabilities are not stored and read as 0. Query:
 * enumeration 1, 2, 3, with 0 first when the scanner can scan without a
 * colour filter. */
#define CAP_FILTER 0x9209
/** #TY_UINT8, compression; only 0 exists. Query: enumeration 0. */
#define CAP_COMPRESSION 0x9210
/** A text type, the dither pattern of a line-art scan, by name: "None", the
 * halftone patterns "Halftone 1" ... and the diffusion patterns "Diffusion
 * 1" ... (the words localised from the localisation profile when it names
 * them). Query: enumeration of the names the scanner has. Set with a text
 * type (a number is ignored); get with a text type. */
#define CAP_DITHER 0x9211
/** #TY_UINT8, the black-and-white threshold (default 128). Query:
 * enumeration 128. */
#define CAP_THRESHOLD 0x9212
/** #TY_UINT8, nonzero to invert every delivered byte (default 0). Query:
 * enumeration 0, 1. A line-art acquisition turns the stored value over
 * (0 to 1, nonzero to 0), since the scanner's line art is the reverse of
 * the host's: with 0 set before each line-art acquisition, a 0 bit is black. */
#define CAP_INVERT 0x9300
/** #TY_UINT8, sharpening 0 (off) to 4. Query: enumeration 0 to 4. */
#define CAP_SHARPEN 0x9303
/** #TY_UINT8, colour matching 1 on, 0 off. Query: enumeration 0, and 1 when
 * the colour module takes the scanner's model (the query loads it). */
#define CAP_COLORMATCH 0x9304
/** #TY_UINT8, descreening 0 (off) to 3. Query: enumeration 0 to 3. */
#define CAP_DESCREEN 0x9305
/** #TY_UINT8, the number of background raster lines (default 50). Query:
 * range 0, 255, 1. Get reads no number: it fetches the background raster
 * into the host's buffer given as the value, which must hold that many lines
 * of the latest acquisition's raw width (twice as many with #CAP_FEEDERTYPE
 * 1). */
#define CAP_BACKGROUNDLINES 0x930d
/** #TY_FLOAT32, query only: enumeration of the longest area of each source
 * the scanner has, in #CAP_UNITS, in the order feeder, flatbed, source 3,
 * source 4. Set and get: #SX_ERR_UNSUPPORTED. */
#define CAP_MAXLENGTHS 0x9400
/** #TY_FLOAT32, query only: the widest area of each source, as
 * #CAP_MAXLENGTHS. */
#define CAP_MAXWIDTHS 0x9401
/** The left edge of the scan area. Set: a number (natural type
 * #TY_FLOAT32) stated in #CAP_UNITS. Get: #TY_UINT16 in 1/300 inch,
 * whatever #CAP_UNITS holds. Query: enumeration of one real, the stored
 * default as it is stored. The area is 0, 0, 2550, 3300 (8.5 x 11 inches)
 * unless stored otherwise; an acquisition cuts it to the source's area,
 * keeping its origin. */
#define CAP_XPOSITION 0x9500
/** The top edge of the scan area, as #CAP_XPOSITION. */
#define CAP_YPOSITION 0x9501
/** The length of the scan area, as #CAP_XPOSITION. */
#define CAP_IMAGELENGTH 0x9502
/** The width of the scan area, as #CAP_XPOSITION. */
#define CAP_IMAGEWIDTH 0x9503
/** #TY_UINT8, the unit in which the host states the area when it sets it and
 * in which #CAP_MAXLENGTHS and #CAP_MAXWIDTHS answer: 0 inches, 1
 * centimetres, 2 pixels at 300 dots per inch (default 2). With any other
 * value setting the area changes nothing. Query: enumeration 0, 1, 2. */
#define CAP_UNITS 0x9504
/** #TY_INT16, extra length scanned beyond the area (default 0). Query:
 * range 0, the scanner's most, 1 (0, 0, 0 without overscan). */
#define CAP_OVERSCAN 0x9505
/** #TY_INT32, the pages one acquisition takes from the feeder: -1 as many as
 * there are (default, unless stored otherwise), n at most n; 0 or any other
 * negative value takes one. A flatbed acquisition is always one page. Query:
 * default, the stored value. */
#define CAP_XFERCOUNT 0x9600
/** #TY_UINT8, a page size code; stored and reported only. Query: default,
 * the stored value. */
#define CAP_PAGESIZE 0x9601
/** #TY_INT16, always 0; set is ignored. Query: enumeration 0. */
#define CAP_RESERVED9602 0x9602
/** #TY_UINT8, get only: nonzero when paper is loaded in the feeder; the
 * scanner is asked, and #SX_ERR_DRIVER answers when it cannot tell. Query:
 * enumeration 0, and 1 when the scanner has a feeder. Set:
 * #SX_ERR_UNSUPPORTED. */
#define CAP_FEEDERLOADED 0x9603
/** @} */

/** @defgroup callbackcodes Transfer callback codes
 * The code argument of ::SxTransferCallback, with what its data and byte
 * count are.
 * @{ */
/** Image data, more of the page to come. Data: the host's transfer buffer
 * (its current address); count: bytes of image data in it, whole lines. */
#define SX_XFER_DATA 0
/** Image data, the last of the page; as #SX_XFER_DATA. */
#define SX_XFER_PAGE_END 1
/** A page is about to be delivered. Data: the ::SxImageInfo (46 bytes; the
 * count says 46). In direct mode the host writes the size of its transfer
 * buffer in bytes into the count: each block then holds as many whole raw
 * lines as fit (the last block of a page fewer), and an answer smaller than
 * one line makes SxAcquire() answer #SX_ERR_DRIVER before the scanner
 * starts. In buffered mode the answer is not used. */
#define SX_XFER_IMAGE_INFO 2
/** Image data, the last of a page that ended early (the driver delivered
 * fewer lines than announced); as #SX_XFER_DATA. The next feeder page, if
 * any, follows. */
#define SX_XFER_SHORT_PAGE 5
/** Direct mode: the person pressed Cancel. No data to take (count: the
 * bytes of the block being read); SxAcquire() then answers
 * #SX_ERR_CANCELLED. */
#define SX_XFER_CANCELLED (-5)
/** Buffered mode: a block whose read failed; no data (count 0). The
 * acquisition is ending and answers the driver's mapped code. */
#define SX_XFER_READ_FAILED (-1)
/** @} */

#pragma pack(push, 1)

/** One data source as the host sees it: 281 bytes, texts NUL-terminated
 * within their fields. SxGetDS() fills it; SxSetDriverById() reads only
 * #DisplayName and writes the whole entry back. */
typedef struct SxDataSource {
  char FileVersion[13];  /**< The driver file's version, without blanks. */
  char Directory[125];   /**< The driver's folder, ending with a separator. */
  char FileName[33];     /**< The driver's file name. */
  /** The name to show, unique in the list ("USB - QM7110 ... 1.00"): what
   * identifies the source to SxSetDriverById() and is stored as the choice. */
  char DisplayName[42];
  char Vendor[33];    /**< The scanner's maker, as its driver reports it. */
  char PortName[33];  /**< The connection ("USB", "SCSI-..."). */
  uint8_t HostAdapter;   /**< SCSI host adapter number (SCSI scanners only). */
  uint8_t DeviceNumber;  /**< Device number, or SCSI target. */
} SxDataSource;

/** The image description passed with callback code #SX_XFER_IMAGE_INFO:
 * 46 bytes, the same for every page of one acquisition.
 *
 * The raster arrives as lines of bytes, each line complete within a block:
 *  - #PixelType 0 (line art): #PixelsPerLine / 8 bytes, 8 pixels to a byte,
 *    the first pixel in the high bit;
 *  - 1 (grey): #PixelsPerLine bytes, one per pixel;
 *  - 2 (colour): 3 x #PixelsPerLine bytes, red, green and blue of each
 *    pixel.
 * The layout follows the pixel type only, whatever #BitsPerPixel says. */
typedef struct SxImageInfo {
  int32_t ResolutionX;    /**< Horizontal resolution, dots per inch. */
  int32_t ResolutionY;    /**< Vertical resolution, dots per inch. */
  int32_t PixelsPerLine;  /**< Pixels of one delivered line. */
  int32_t LinesPerPage;   /**< Lines of one page (a page ended early has fewer). */
  int32_t BitsPerPixel;   /**< #CAP_BITSPERPIXEL as set. */
  /** The larger of one delivered line's bytes and 1048575: one byte less
   * than the largest block buffered mode delivers (1 MiB). It does not tell
   * the size of the host's buffer, which the host chooses: in direct mode
   * by its answer to #SX_XFER_IMAGE_INFO; in buffered mode the buffer holds
   * a whole block, and 1048576 bytes always do (a scan whose raw lines are
   * longer cannot run buffered). */
  int32_t BufferSizeHint;
  int16_t SamplesPerPixel;  /**< 3 for colour, else 1. */
  /** #BitsPerPixel / #SamplesPerPixel in the first #SamplesPerPixel
   * entries, 0 in the others. */
  int16_t BitsPerSample[8];
  int16_t PixelType;  /**< #CAP_PIXELTYPE: 0 line art, 1 grey, 2 colour. */
  int16_t Reserved;   /**< 0. */
} SxImageInfo;

#pragma pack(pop)

/** The block SxQueryData() hands over.
 *
 * Both this block and the items block are movable global memory left
 * locked, and the host owns both: it unlocks and frees each, the items block
 * found with SxSysGlobalHandle() from #Items and this one from its own
 * address (on Windows GlobalUnlock() and GlobalFree() do the same).
 *
 * The items lie back to back, each the size of the requested value type
 * (see @ref valuetypes). A list has one of five forms, fixed per capability
 * (see @ref capabilities):
 * | form | Count | items |
 * |---|---|---|
 * | enumeration | n >= 1 | the n admissible values |
 * | range | 0 | three: minimum, maximum, step |
 * | default | 0 | one: the stored default |
 * | empty | 0 | none (one zeroed item) |
 * | any | -1 | none (one zeroed item): every value is accepted |
 * Count 0 alone does not tell a range, a default and an empty list apart:
 * the capability does. */
typedef struct SxValueList {
  int32_t Count;  /**< The number of items of an enumeration; 0 or -1 as above. */
  void* Items;    /**< The locked address of the items block. */
} SxValueList;

/** The host's transfer callback, called by SxAcquire() on the host's thread.
 *
 * @param data      what the code says: the ::SxImageInfo, or the transfer
 *                  buffer with image data (valid during the call only).
 * @param byteCount a 64-bit byte count: 46 with the image information (the
 *                  host answers its buffer size there in direct mode), the
 *                  bytes of image data with data.
 * @param code      one of the @ref callbackcodes.
 * @return 0 to go on. Any other value stops: the answer to
 *         #SX_XFER_IMAGE_INFO ends the acquisition and becomes its result. In
 *         direct mode a negative answer to data ends the acquisition with
 *         that result, a positive one ends only the page (a further feeder
 *         page follows); in buffered mode any nonzero answer ends it and
 *         becomes the result. */
typedef int32_t(SX_API* SxTransferCallback)(void* data, int64_t* byteCount, int32_t code);

/** Opens the stored data source: builds the list of data sources, finds the
 * one whose name the stored choice (SOURCENAME) begins with, loads its
 * driver, initialises driver and scanner and resets every setting to its
 * stored default.
 *
 * It does nothing and answers #SX_OK once a driver is bound or the source
 * list exists: after SxGetDS() or SxSetDriverById(), and after a failed
 * SxLoad() that had built the list (a host then enumerates and chooses, or
 * calls SxFree() first to start again).
 *
 * @param window the host's window (Windows: its screen resolution sizes the
 *               dialogs' font); may be null.
 * @retval SX_OK            the source is open (or nothing was to be done).
 * @retval SX_ERR_NO_SOURCE no source installed, or none matches the choice.
 * @retval SX_ERR_DRIVER    the driver could not be loaded or initialised (it
 *                          stays loaded until SxFree()), or the call was
 *                          refused. */
SX_EXPORT int32_t SX_API SxLoad(void* window);

/** Ends the work with the scanner: hands the power-save time
 * (#CAP_ENERGYSAVING) to the scanner, terminates and unloads the driver,
 * frees the source list (drivers installed since appear at the next
 * enumeration), the settings' buffers with the ring of buffered mode, the
 * dialog font, and ends the library's worker threads.
 *
 * The worker threads are made only when the library is loaded into the
 * process, so after SxFree() the library can open a source again and scan
 * in direct mode, but a buffered acquisition answers #SX_ERR_DRIVER, without
 * any callback, until the library is unloaded and loaded again. Settings
 * are reset when a source is opened again, except #CAP_BUFFERING.
 *
 * Every block the library allocated for itself is freed: a count of
 * SxSysGlobalBlockCount() taken before SxLoad() is met again, once the host
 * has freed its own blocks and lists. SxFree() may be called at any time
 * but during an acquisition, and more than once.
 * @retval SX_OK         always, unless
 * @retval SX_ERR_DRIVER the call was refused. */
SX_EXPORT int32_t SX_API SxFree(void);

/** Enumerates the data sources.
 *
 * The first #SX_DS_FIRST builds the list: every verified driver module of
 * the driver tree, and SCSI scanners claimed by one; it stays as it is until
 * SxFree(). Scanners that no driver claims are skipped. With the Shift key
 * held (Linux: SX_SHIFT_HELD=1) and no source installed, the built-in
 * "Sample" source is delivered instead.
 *
 * @param message    #SX_DS_FIRST for the first entry, #SX_DS_NEXT for the
 *                   next one; any other value delivers the last entry again.
 * @param dataSource receives the entry (281 bytes).
 * @retval SX_OK            the entry was copied.
 * @retval SX_ERR_NO_SOURCE no entry: the list is empty, or the enumeration
 *                          is past its end (and stays there until the next
 *                          #SX_DS_FIRST); also for a buffer that cannot be
 *                          written.
 * @retval SX_ERR_DRIVER    the call was refused. */
SX_EXPORT int32_t SX_API SxGetDS(uint32_t message, SxDataSource* dataSource);

/** Chooses a data source: finds the list entry whose DisplayName equals the
 * record's (byte for byte), copies the whole entry into the record, stores
 * the choice for later SxLoad() calls and, when no driver is bound yet,
 * opens the source as SxLoad() does (settings reset to their defaults).
 * When a driver is bound already the choice takes effect at the next
 * SxLoad() after SxFree().
 *
 * @param dataSource a record from SxGetDS(); only DisplayName is read.
 * @param reserved   not used; pass 0.
 * @retval SX_OK         the choice is stored, and the source is open, or a
 *                       driver was bound already, or the source's module
 *                       could not be loaded (then nothing is bound, and
 *                       SxAcquire() answers #SX_ERR_DRIVER).
 * @retval SX_ERR_DRIVER no entry has that name (or no list exists yet), the
 *                       driver failed to initialise, or the call was
 *                       refused. */
SX_EXPORT int32_t SX_API SxSetDriverById(SxDataSource* dataSource, uintptr_t reserved);

/** Changes one setting: converts the value from the host's type to the
 * capability's native type and stores it. No value is checked here (the
 * acquisition checks them); nothing is written to the stored defaults. What
 * each capability does beyond storing is told with its code.
 *
 * @param capability one of the @ref capabilities.
 * @param valueType  the type of the value (@ref valuetypes).
 * @param value      the address of the value.
 * @retval SX_OK              stored; also for an unknown code, a type that
 *                            does not convert and a value that cannot be
 *                            read (then nothing changes).
 * @retval SX_ERR_UNSUPPORTED the capability cannot be set.
 * @retval SX_ERR_DRIVER      the call was refused. */
SX_EXPORT int32_t SX_API SxSetValue(uint32_t capability, uint32_t valueType, void* value);

/** Reads one setting or fact, converted to the host's type.
 *
 * @param capability one of the @ref capabilities.
 * @param valueType  the type wanted (@ref valuetypes).
 * @param value      where the value is written: room for the type.
 * @retval SX_OK              written; also for an unknown code or a type
 *                            the value does not convert to (nothing is
 *                            written then).
 * @retval SX_ERR_UNSUPPORTED the capability cannot be read.
 * @retval SX_ERR_DRIVER      #CAP_FEEDERLOADED: the scanner could not tell;
 *                            or the call was refused. */
SX_EXPORT int32_t SX_API SxGetValue(uint32_t capability, uint32_t valueType, void* value);

/** Lists the values a capability takes with the open scanner, each item
 * converted to the requested type, in a new ::SxValueList that the host
 * frees. Every call makes a list, an empty one for codes without values.
 *
 * @param capability one of the @ref capabilities.
 * @param valueType  the type of the items (@ref valuetypes): any numeric
 *                   type for numbers, a text type for names.
 * @param listOut    receives the address of the list.
 * @return #SX_OK, always (a refused call gets an empty list). */
SX_EXPORT int32_t SX_API SxQueryData(uint32_t capability, uint32_t valueType, SxValueList** listOut);

/** Runs one acquisition: checks the settings and programs the scanner, then
 * for each page calls the callback with #SX_XFER_IMAGE_INFO and delivers the
 * raster in blocks (#SX_XFER_DATA, the last with #SX_XFER_PAGE_END or
 * #SX_XFER_SHORT_PAGE), page after page from the feeder while paper is
 * loaded and #CAP_XFERCOUNT allows. #CAP_BUFFERING chooses the mode.
 *
 * The check refuses, before any callback: #CAP_PIXELTYPE above 2 or
 * #CAP_SCANTYPE above 4 (#SX_ERR_UNSUPPORTED), colour on a scanner without
 * it (#SX_ERR_NO_COLOR), a feeder scan without paper (#SX_ERR_NO_PAPER, also
 * for #CAP_SCANTYPE 0 on a scanner without flatbed), an area that is empty
 * once cut to the source, and descreening at bits per pixel other than 1, 8
 * and 24 when it raises the resolution (#SX_ERR_UNSUPPORTED); the scanner
 * may refuse the settings itself (its mapped code).
 *
 * With the defaults a source opens with (#CAP_SCANTYPE 0, #CAP_XFERCOUNT -1,
 * #CAP_PIXELTYPE 0) an acquisition takes every sheet the feeder holds, as
 * line art, or one flatbed page when the feeder is empty.
 *
 * @param callback       the host's ::SxTransferCallback.
 * @param transferBuffer the host's transfer buffer: direct mode reads into
 *                       it (its size is the host's answer to
 *                       #SX_XFER_IMAGE_INFO; with descreening the library
 *                       may enlarge and move it, and the callback always
 *                       gets the current address); buffered mode copies
 *                       each block into it. A buffer made with
 *                       SxSysGlobalAlloc() that cannot hold the largest
 *                       block of the scan is refused in buffered mode.
 * @retval SX_OK              every page was delivered.
 * @retval SX_ERR_CANCELLED   the person pressed Cancel.
 * @retval SX_ERR_DRIVER      no callback or buffer; no source open; buffered
 *                            mode unavailable (after SxFree(), or a
 *                            transfer buffer too small); a direct-mode
 *                            answer smaller than one line; a failed driver
 *                            call; the call was refused.
 * @retval SX_ERR_UNSUPPORTED refused settings (above).
 * @retval SX_ERR_NO_COLOR    colour without a colour scanner.
 * @retval SX_ERR_NO_MEMORY   no memory for the scaling tables.
 * @retval SX_ERR_NO_PAPER    no paper in the feeder.
 * @return otherwise the driver's mapped code, or the callback's own nonzero
 *         answer. */
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
