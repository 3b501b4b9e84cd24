// Messages: the record, its text form and the parsing of a received header.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "protocol/fields.h"
#include "protocol/wire.h"

namespace qel {

// The version token every start line carries; received tokens are not checked.
inline constexpr std::string_view kProtocolVersion = "QEL/2.1";

// One message, being built for sending or being received. Text is bytes.
struct typMessage {
  // While receiving: the raw header up to and including its empty line.
  std::string Header;
  // While receiving: the empty line was seen and the header parsed.
  bool HeaderDone = false;
  std::string Body;
  // The type word ("MSG", "PING", ...), upper case on the wire.
  std::string MsgType;
  // The start line's middle token; empty for most types.
  std::string Resource;
  // Empty until the first field is added (NewMessage reserves room).
  FieldList Fields;
  // While receiving: the resource had an escape that is not hexadecimal; it
  // reads "\" and the receiver reports the fault.
  bool ResourceUndecodable = false;
  // While receiving, for a message that arrived whole in the plain form:
  // its bytes (header, then body) and where its fields lie. Fields and Body
  // stay empty until Unpack fills them.
  std::string Wire;
  WireIndex Index;
};

// An empty message; every producer starts from one.
typMessage NewMessage();

// Appends the message's text to out: the start line (type, resource with each
// space as "%20", version), one "Name: Value" line per field in list order, an
// empty line and the body. Writes exactly the fields in the list; the lengths
// and flags come from EncodeBody and the sender. Appending lets a transport
// gather many messages into one buffer.
void SerialiseMessage(const typMessage& message, std::string& out);
// The message's text up to its body: what SerialiseMessage writes before it.
void SerialiseHeader(const typMessage& message, std::string& out);
std::string SerialiseMessage(const typMessage& message);

// Parses message.Header (a complete header, CR LF line ends) into MsgType
// (upper-cased), Resource (percent-decoded by DecodePath, with a leading "\";
// just "\" with ResourceUndecodable set when DecodePath refuses it) and
// Fields; each header line goes through the rules of SetField, so a repeated
// name overwrites the first value in place. Returns false for a malformed
// header: a start line without a space, a header line without ": ", or a line
// SetField would refuse (a name that also arrived as an array). Never throws on peer input; the message is
// then half filled and is to be dropped.
bool ParseHeader(typMessage& message);
// The same for a header given separately, which message.Header need not hold.
bool ParseHeader(typMessage& message, std::string_view header);

// True when the upper-cased "Flags" value contains flag, upper-cased, followed
// by a comma. A plain substring test: no flag word ends in another.
bool HasFlag(const typMessage& message, std::string_view flag);
// The same test on a Flags value.
bool FlagsHold(std::string_view flags, std::string_view flag);

// A length field's value: optional blanks, an optional sign and decimal
// digits; nullopt for anything else. Digits beyond 64 bits saturate, so an
// absurd length is still refused as too large.
std::optional<int64_t> ParseLength(std::string_view text);

}  // namespace qel
