// Who has the job: one file conversion, or calls that prepare, finish or release it. Anybody may cancel a
// conversion.
#pragma once

// A conversion is under way from begin_conversion() to end_conversion(), in whatever thread its parts run.
// begin_conversion() waits until nobody else has the job; try_begin_conversion() is false while a conversion
// has it.
void begin_conversion();
bool try_begin_conversion();
void end_conversion(int outcome);

// What GetConversionProgress() tells: how far the conversion is, and why one was refused that never had the
// job. The one that has it keeps its own.
void note_progress(int percent);
void note_refused(int reason);

// A call that must not meet a conversion has the job from begin_use() to end_use(); several may have it at a
// time. begin_use() waits for a conversion's end; try_begin_use() is false instead.
void begin_use();
bool try_begin_use();
void end_use();

// Has somebody called CancelConversion()? False when no conversion runs.
bool is_cancelled();

// The outcome is about to be published: from here on it is too late to cancel. True when somebody did in
// time.
bool close_to_cancelling();
