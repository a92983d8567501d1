// Which file conversion runs: who would disturb it waits for its end or stands back, and anybody may cancel
// it.
#pragma once

// A conversion is under way from begin_conversion() to end_conversion(), in whatever thread its parts run.
// begin_conversion() waits for the end of another one; try_begin_conversion() is false instead.
void begin_conversion();
bool try_begin_conversion();
void end_conversion();

bool is_conversion_running();
void await_conversion_end();

// Has somebody called CancelConversion()? False when no conversion runs.
bool is_cancelled();

// The outcome is about to be published: from here on it is too late to cancel. True when somebody did in
// time.
bool close_to_cancelling();
