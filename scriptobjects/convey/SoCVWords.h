#pragma once

#include <cstdint>

// The words that messages are made of and that peers compare byte for byte: message types, kinds of
// reply, the names of header lines and what they may hold; and what handlers and askers are told:
// events, and errors with their codes. Each stands here and nowhere else. docs/messages.md says
// when which of them comes.
namespace ScObjects::ConveyData {

// No message, or any message.
inline constexpr uint32_t CV_INVALID_MESSAGE_NUMBER = 0xFFFFFFFF;

// The types that the layer gives a meaning to; every other is a user type.
//
// A plain request: what a message is that says nothing else. With an empty body it asks for
// nothing and is neither sent nor handled; a probe for a running target is one.
inline constexpr const char* CV_TYPE_PLAIN = "Tessaly";
// Like a plain request, but never reported to observers and never asked for "Processed".
inline constexpr const char* CV_TYPE_DEBUG = "Debug";
// Old peers' word; nothing sends it, and it must not pass for a user type.
inline constexpr const char* CV_TYPE_RECEIVE = "Receive";
// The replies: the target has taken the message; has handled it, with the result as body; could not
// (the body says why); and, behind either of these, has come to its end.
inline constexpr const char* CV_TYPE_RECEIVED = "Received";
inline constexpr const char* CV_TYPE_RESULT = "Result";
inline constexpr const char* CV_TYPE_ERROR = "Error";
inline constexpr const char* CV_TYPE_PROCESSED = "Processed";
// The notice that a message's time has run out before it was handled.
inline constexpr const char* CV_TYPE_TIMEOUT = "Timeout";
// A watcher: a message to oneself that is never handled. Its only purpose is to expire in a queue
// and thereby bring about the "Timeout" that it asks for.
inline constexpr const char* CV_TYPE_WATCHER = "Ignore";
inline constexpr const char* CV_TYPE_IDLE = "Idle";
// A line of a log; the diagnostics show such messages apart from all others.
inline constexpr const char* CV_TYPE_LOG = "Log";
inline constexpr const char* CV_TYPE_LAUNCHED = "Launched";

// Types of the layer's own traffic, which pass for user types elsewhere: a question to a background
// thread or its answer, and parameters for a launched application.
inline constexpr const char* CV_TYPE_PING = "ping";
inline constexpr const char* CV_TYPE_LAUNCH_PARAMETERS = "LaunchParams";

// The kinds of reply that a sender asks for in "Response-Request", each the type of that reply.
// Readers look for the word anywhere in the line.
inline constexpr const char* CV_WANTS_RECEIVED = CV_TYPE_RECEIVED;
inline constexpr const char* CV_WANTS_RESULT = CV_TYPE_RESULT;
inline constexpr const char* CV_WANTS_ERROR = CV_TYPE_ERROR;
inline constexpr const char* CV_WANTS_PROCESSED = CV_TYPE_PROCESSED;
inline constexpr const char* CV_WANTS_TIMEOUT = CV_TYPE_TIMEOUT;

// The names of the header lines.
inline constexpr const char* CV_SENDER = "Sender";
inline constexpr const char* CV_SENDER_ID = "Sender-ID";
inline constexpr const char* CV_TARGET = "Target";
inline constexpr const char* CV_TIMEOUT = "Timeout";
inline constexpr const char* CV_TYPE = "Type";
inline constexpr const char* CV_RESPONSE_REQUEST = "Response-Request";
inline constexpr const char* CV_TIMESTAMP = "Timestamp";
inline constexpr const char* CV_CONTENT_LENGTH = "Content-Length";
inline constexpr const char* CV_SERIAL_NUMBER = "Serial-Number";
inline constexpr const char* CV_RECEIVED = "Received";
inline constexpr const char* CV_RESULT = "Result";
inline constexpr const char* CV_ERROR = "Error";
inline constexpr const char* CV_ERROR_CODE = "Error-Code";
// Of an error that says that a request was not sent: "ISNOTRUNNING" when nobody had the target's
// name then.
inline constexpr const char* CV_ERROR_TARGET = "Error-Target";
inline constexpr const char* CV_TARGET_ABSENT = "ISNOTRUNNING";
inline constexpr const char* CV_VERSION = "@CV>Version";
// Which life of the asking process a request is of, and what answers it: serial numbers begin with
// 1 in each, so without it a late answer would pass for one to the successor. 16 hexadecimal
// digits.
inline constexpr const char* CV_LIFE = "@CV>Life";
inline constexpr const char* CV_DIGEST = "@CV>Digest";
inline constexpr const char* CV_MD5 = "@CV>MD5";

// User headers that the layer itself sets and reads.
//
// Who watches a request's time: the sender (it has a watcher of its own), or the target (nothing is
// watched at the sender). Without the header both do.
inline constexpr const char* CV_TIMEOUT_DETECTOR = "TIMEOUT_DETECTOR";
inline constexpr const char* CV_DETECTOR_SENDER = "SENDER";
inline constexpr const char* CV_DETECTOR_TARGET = "TARGET";
// The second at which a message for an absent target was first queued: its age counts from there,
// since each attempt gives it a new timestamp.
inline constexpr const char* CV_QUEUESTAMP = "QUEUESTAMP";
// Repeats the serial number of a ping in its answer.
inline constexpr const char* CV_PING_NUMBER = "Ping-Number";
// The path under which forwarded rows were written.
inline constexpr const char* CV_MESSAGE_ROOT = "MsgRoot";

// The types of the handlers, and keys of the ping table, by which an observer has messages, errors
// and events forwarded. What they share is how a handler is told to be one of them.
inline constexpr const char* CV_FORWARD_PREFIX = "FWD";
inline constexpr const char* CV_FORWARD_MESSAGES = "FWDMESSAGES";
inline constexpr const char* CV_FORWARD_ERRORS = "FWDERRORS";
inline constexpr const char* CV_FORWARD_LOGS = "FWDLOGS";

// In the body of a request for diagnostics: texts are not to be cut.
inline constexpr const char* CV_WHOLE = "whole";

// What a handler is told of a message as its `event`.
//
// A message of a type of the applications' own. "Processed" comes as one, too.
inline constexpr int32_t CV_EVENT_USER = 0;
// A request of type "Tessaly" or "Debug", or of none.
inline constexpr int32_t CV_EVENT_REQUEST = 1;
// The replies to a request: taken, the result, an error (the body is its text), the time is over.
inline constexpr int32_t CV_EVENT_RECEIVED = 2;
inline constexpr int32_t CV_EVENT_RESULT = 3;
inline constexpr int32_t CV_EVENT_ERROR = 4;
inline constexpr int32_t CV_EVENT_TIMEOUT = 5;
// Messages of type "Log" and "Idle".
inline constexpr int32_t CV_EVENT_LOG = 6;
inline constexpr int32_t CV_EVENT_IDLE = 7;

// What an "Error" says in its header "Error-Code", and the texts that are the layer's own. Every
// other code, and its text, is what the target's handler gave; the layer gives 50 to 69 only.
//
// The target refuses the message.
inline constexpr int32_t CV_CODE_REJECTED = 53;
inline constexpr const char* CV_ERROR_REJECTED = "ERROR: MESSAGE REJECTED";
// It was not sent, by the asker's own layer: the target's name is no specifier; the message has no
// text; the target does not run, or has not taken it in time, and may not be launched; it could not
// be launched; too much waits for absent targets already.
inline constexpr int32_t CV_CODE_NOT_SENT = 59;
inline constexpr const char* CV_ERROR_INVALID_SPECIFIER = "ERROR: INVALID SPECIFIER";
inline constexpr const char* CV_ERROR_NO_TEXT = "ERROR: CAN'T STREAM MESSAGE TO STRING";
inline constexpr const char* CV_ERROR_NOT_LAUNCHED = "ERROR: LAUNCHING IS SUPPRESSED";
inline constexpr const char* CV_ERROR_LAUNCH_FAILED = "ERROR: TARGET COULD NOT BE LAUNCHED";
inline constexpr const char* CV_ERROR_TOO_MANY_WAIT = "ERROR: TOO MANY MESSAGES WAIT";
// The target's handler has thrown.
inline constexpr int32_t CV_CODE_HANDLER_FAILED = 61;
inline constexpr const char* CV_ERROR_HANDLER_FAILED = "ERROR: HANDLER FAILED";
// The process that took the request has ended without an answer; it may have handled it.
inline constexpr int32_t CV_CODE_TARGET_ENDED = 62;
inline constexpr const char* CV_ERROR_TARGET_ENDED = "ERROR: TARGET HAS ENDED";
// Memory ran out: as a rule no handler has seen the request.
inline constexpr int32_t CV_CODE_OUT_OF_MEMORY = 63;
inline constexpr const char* CV_ERROR_OUT_OF_MEMORY = "ERROR: OUT OF MEMORY";

// The target's handler has let go of its reply.
inline constexpr int32_t CV_CODE_NOT_ANSWERED = 64;
inline constexpr const char* CV_ERROR_NOT_ANSWERED = "ERROR: NOT ANSWERED";
// The target owes this asker, or all, more replies than it keeps.
inline constexpr int32_t CV_CODE_TOO_MANY_OWED = 65;
inline constexpr const char* CV_ERROR_TOO_MANY_OWED = "ERROR: TOO MANY REPLIES ARE OWED";
// Nothing in the target takes messages of this type: it said "Processed" and nothing before that.
// Told by the asker's own layer to those who ask by `Convey::Request`.
inline constexpr int32_t CV_CODE_NOT_HANDLED = 66;
inline constexpr const char* CV_ERROR_NOT_HANDLED = "ERROR: NOBODY HANDLES THIS TYPE";

// The suffixes by which the endpoints of one process differ: its background thread, and the stream
// at which its questions are answered.
inline constexpr const char* CV_SUFFIX_THREAD = "thread";
inline constexpr const char* CV_SUFFIX_PING = "ping";

// What a ping gives when no answer came in time.
inline constexpr const char* CV_PING_TIMEOUT = "Timeout";

// What came of the check of a text that carries no digest, or one that does not fit.
inline constexpr const char* CV_DIGEST_NOT_CHECKED = "NODIGEST";
inline constexpr const char* CV_DIGEST_REJECTED = "REJECTED";

} // namespace ScObjects::ConveyData
