// Standard descriptors of a program that uses the library.
#pragma once

namespace tools {

// A closed standard descriptor would become the next file opened, and receive what is printed.
void fill_standard_descriptors();

// As many open files as the system allows us: recordings that wait for their names stay open.
void raise_descriptor_limit();

// The library writes markers to standard output; as long as this lives they are nobody's business.
struct Silence
{
    int saved = -1; // standard output as it was

    Silence();
    ~Silence();
    Silence(const Silence&) = delete;
    Silence& operator=(const Silence&) = delete;
};

} // namespace tools
