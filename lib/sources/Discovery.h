// Discovery of driver modules under twain_32: the checks one candidate file
// goes through before it becomes a data source. Host's thread only; each
// candidate is loaded, queried and released before the next one.
#pragma once
#include <cstdint>
#include <string>

#include "sources/DataSourceList.h"
#include "sxdriver.h"

namespace sx {

// Field widths of a DataSource, terminator included.
inline constexpr size_t kFileVersionField = sizeof(SxDataSource::FileVersion);
inline constexpr size_t kDirectoryField = sizeof(SxDataSource::Directory);
inline constexpr size_t kFileNameField = sizeof(SxDataSource::FileName);
inline constexpr size_t kDisplayNameField = sizeof(SxDataSource::DisplayName);

// The longest folder name (without its separator) a candidate may lie in.
inline constexpr size_t kMaxFolderName = 30;

// The folder that discovery searches: "<windows>/twain_32/".
std::string TwainDirectory();

// Verifies one candidate and fills `entry` (the list's waiting tail). Folder
// arguments are empty or end with '/'. 1 when `entry` became a new data
// source; 0 otherwise, also when the candidate only updated an existing entry.
int32_t VerifyDriver(const std::string& makerFolder, const std::string& modelFolder,
                     const std::string& fileName, DataSourceEntry& entry);

// 1 when the version record of the file at `path` names the maker (company
// name, else product name, beginning with "corvane" in any case), else 0.
int32_t VerifyMaker(const std::string& path);

// The file version text of the file at `path`, blanks removed and cut to the
// FileVersion field; empty when the file has no usable record or no version.
std::string ReadFileVersion(const std::string& path);

// The name a driver's abilities give its data source, written into `out`
// (the 42-byte DisplayName field, cleared first).
void BuildDisplayName(const ScannerAbility& ability, char (&out)[kDisplayNameField]);

// DeviceId's leading decimal digits as the 8-bit device number.
uint8_t DeviceNumberOf(const ScannerAbility& ability);

// SxGetDS's work: message 2 builds the list when missing and delivers the
// first entry, 3 the next, any other the entry at the cursor.
int32_t GetDataSource(uint32_t message, SxDataSource* out);

// A new "Sample" entry: the built-in source without hardware or module.
// Null when no memory is left.
DataSourceEntry* CreateSampleEntry();

// Compares at most n characters without regard to ASCII case, stopping
// after a terminator as the C library's comparison does; true when equal.
bool EqualNoCase(const char* a, const char* b, size_t n);

// Copies at most `from` bytes of a text that may lack its terminator into a
// field of `to` bytes, always terminated.
void CopyText(char* to, size_t toSize, const char* from, size_t fromSize);

}  // namespace sx
