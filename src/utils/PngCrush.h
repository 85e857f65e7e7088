#pragma once

#include "kavrel_export.h"

#include <cstdio>

// One chunk of the PNG file being converted, as read from the file.
struct PngChunkRecord
{
    unsigned int length; // data length
    unsigned int type;   // the four type bytes packed big-endian ("IHDR" is 0x49484452)
    unsigned char* data; // length + 4 bytes: the type bytes followed by the data
    unsigned int crc;    // the stored CRC
};

// Turns Apple's crushed ("CgBI") PNG files, as found inside iOS app bundles, into
// standard PNG files: drops the CgBI chunk, swaps BGR(A) back to RGB(A), undoes the
// alpha premultiplication, wraps the image data in zlib again and rewrites the file
// (in place, unless output_dir is set). Progress and errors go to standard output.
//
// The fields are public on purpose: the host sets the options it wants before
// calling process(); nothing here changes them.
class KAVREL_EXPORT PngCrush
{
public:
    PngCrush();
    ~PngCrush();
    PngCrush(const PngCrush&) = delete;
    PngCrush& operator=(const PngCrush&) = delete;

    // Converts one file. On success writes the output and returns 1; otherwise prints
    // one message and returns 0. *outName receives a malloc'ed copy of the output file
    // name as soon as it is formed (the caller frees it).
    int process(char* file, char** outName);

    // Reads one chunk at the current position of f and appends it to chunks.
    // Returns 0 (also at a clean end of file, without a new record), -1 when the
    // length is larger than the file, -2 when out of memory, -3 on a short read.
    int init_chunk(FILE* f, unsigned int fileSize);
    // Frees the data of every record; the array itself stays for the next file.
    void reset_chunks();

    // Standard CRC-32 as PNG uses it; 0 when len < 1.
    static unsigned int crc32s(unsigned char* buf, int len);
    // The big-endian 32-bit value at p.
    static unsigned int read_long(void* p);

    // Row operations on RGBA scanlines (4 bytes per pixel, each row preceded by its
    // filter-type byte): undo the row filters, divide the colours by alpha, re-apply
    // the row filters. All three work in place.
    static void removeRowFilters(int width, int height, unsigned char* rows);
    static void demultiplyAlpha(int width, int height, unsigned char* rows);
    static void applyRowFilters(int width, int height, unsigned char* rows);

    int chunk_count;
    int chunk_capacity;
    PngChunkRecord* chunks;
    int print_info;
    int allow_plain;
    int list_chunks;
    int informational;
    int fix_alpha;
    int max_idat_size;
    int write_output;
    char* output_dir;
    // Off by default, which keeps the converter's own re-filtering of Up, Average and
    // Paeth rows. When set, crushed RGBA rows are un-filtered and re-filtered exactly as
    // PNG defines the filters, so ordinary image viewers show the right pixels.
    int standard_filters;
};
