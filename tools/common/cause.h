// Why something failed or was left out, as one word that programs can rely on. The text beside it is for
// people and may change.
#pragma once

namespace cli::cause {

inline constexpr char NoKey[] = "no_key";             // enciphered, and no usable key is set
inline constexpr char WrongKey[] = "wrong_key";       // deciphered, and no start code came out
inline constexpr char NoKeyFrame[] = "no_key_frame";  // nothing that a player can begin with
inline constexpr char Garbage[] = "garbage";          // bytes in no frame
inline constexpr char EmptyFile[] = "empty_file";     // no byte in it
inline constexpr char NoRecording[] = "no_recording"; // something else
inline constexpr char HeaderLost[] = "header_lost";   // frames without their file header
inline constexpr char Exists[] = "exists";            // and is not to be replaced
inline constexpr char NameClash[] = "name_clash";     // two inputs would get one name
inline constexpr char SameFile[] = "same_file";       // the output is the input
inline constexpr char DiskFull[] = "disk_full";       // or a quota, or a limit of the process
inline constexpr char CannotWrite[] = "cannot_write"; // the output, for another reason
inline constexpr char CannotRead[] = "cannot_read";   // the input
inline constexpr char OutOfMemory[] = "out_of_memory";
inline constexpr char Interrupted[] = "interrupted"; // by a signal
inline constexpr char WorkerDied[] = "worker_died";  // the process that converted it
inline constexpr char NotStarted[] = "not_started";  // an earlier failure ended the run
inline constexpr char Failed[] = "failed";           // none of these

// Of a stream: its frames, and how a connection with a camera ended, or did not begin.
inline constexpr char Number0[] = "number_0";          // frames that the format says are none
inline constexpr char Inconsistent[] = "inconsistent"; // frames whose parts do not lie within them
inline constexpr char NotWritten[] = "not_written";    // the disk did not take them
inline constexpr char PeerClosed[] = "peer_closed";
inline constexpr char Idle[] = "idle";               // it sent no frame for too long
inline constexpr char Replaced[] = "replaced";       // it called anew
inline constexpr char Unreachable[] = "unreachable"; // it does not answer, or has no address
inline constexpr char Stopped[] = "stopped";         // by us

// What is wrong with a frame of a recording, or with what lies between two.
inline constexpr char BeforeKeyFrame[] = "before_key_frame"; // of all: nothing to begin with yet
inline constexpr char Zeros[] = "zeros";
inline constexpr char Erased[] = "erased";        // bytes FF
inline constexpr char BadHeader[] = "bad_header"; // of a frame
inline constexpr char BytesLost[] = "bytes_lost"; // in the frame before
inline constexpr char CutOff[] = "cut_off";       // also of an AVI file
inline constexpr char NoFrames[] = "no_frames";   // also of an AVI file

// What is wrong with an AVI file.
inline constexpr char NoAvi[] = "no_avi";           // something else
inline constexpr char WrongField[] = "wrong_field"; // in the headers
inline constexpr char WrongCount[] = "wrong_count"; // in the headers, of what is in the file
inline constexpr char WrongSize[] = "wrong_size";   // of a list or a chunk
inline constexpr char BadChunk[] = "bad_chunk";
inline constexpr char NoIndex[] = "no_index";
inline constexpr char BadIndex[] = "bad_index";
inline constexpr char NoStartCode[] = "no_start_code"; // where a picture should begin
inline constexpr char OtherRate[] = "other_rate";      // than the video's own

} // namespace cli::cause
