#include "kernel32/message_texts.h"

namespace bv::platform {
namespace {
struct MessageText {
  DWORD id;
  const char* text;
};

// Texts as the platform words them, each ending in "\r\n" like Windows'.
constexpr MessageText kSystemTexts[] = {
    {2, "The system cannot find the file specified.\r\n"},
    {3, "The system cannot find the path specified.\r\n"},
    {5, "Access is denied.\r\n"},
    {6, "The handle is invalid.\r\n"},
    {8, "Not enough memory resources are available to process this command.\r\n"},
    {13, "The data is invalid.\r\n"},
    {14, "Not enough memory resources are available to complete this operation.\r\n"},
    {50, "The request is not supported.\r\n"},
    {87, "The parameter is incorrect.\r\n"},
    {122, "The data area passed to a system call is too small.\r\n"},
    {126, "The specified module could not be found.\r\n"},
    {183, "Cannot create a file when that file already exists.\r\n"},
    {234, "More data is available.\r\n"},
    {259, "No more data is available.\r\n"},
    {1223, "The operation was canceled by the user.\r\n"},
    {1460, "This operation returned because the timeout period expired.\r\n"},
    {0x8000FFFF, "Catastrophic failure\r\n"},
    {0x80004005, "Unspecified error\r\n"},
    {0x8007000E, "Not enough memory resources are available to complete this operation.\r\n"},
    {0x80070057, "The parameter is incorrect.\r\n"},
};

constexpr MessageText kWininetTexts[] = {
    {12002, "The operation timed out\r\n"},
    {12005, "The URL is invalid\r\n"},
    {12007, "The server name or address could not be resolved\r\n"},
    {12029, "A connection with the server could not be established\r\n"},
    {12030, "The connection with the server was terminated abnormally\r\n"},
    {12152, "The server returned an invalid or unrecognized response\r\n"},
};

template <size_t N>
const char* find(const MessageText (&table)[N], DWORD id) {
  for (const auto& row : table)
    if (row.id == id) return row.text;
  return nullptr;
}
}  // namespace

const char* system_message_text(DWORD messageId) { return find(kSystemTexts, messageId); }
const char* wininet_message_text(DWORD messageId) { return find(kWininetTexts, messageId); }
}  // namespace bv::platform
