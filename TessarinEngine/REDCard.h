#pragma once

#include "TessarinEngine/R3DHeader.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string_view>
#include <vector>

// A RED card: take folders, each with a numbered run of picture chunks and usually one sidecar WAV
// with the sound. Lets the rest of the program treat a take as one clip.
struct REDCard {
    struct Take {
        std::filesystem::path folder;
        std::optional<std::filesystem::path> wav;
        std::filesystem::path picture;
        int chunkCount = 0;
        std::int64_t byteCount = 0;
        std::optional<R3DHeader::Metadata> header;
        std::optional<int> pictureFrames;

        bool operator==(const Take&) const = default;
    };

    std::filesystem::path root;
    std::vector<Take> takes;

    bool operator==(const REDCard&) const = default;

    // The cards below a folder: every take folder found, grouped by the folder that holds it, with
    // takes in name order and picture lengths worked out. No cards when `root` is no folder.
    static std::vector<REDCard> cards(const std::filesystem::path& root);

    // The take of one take folder, or nothing when it holds no picture chunk or cannot be listed.
    static std::optional<Take> take(const std::filesystem::path& folder);

    // Whether the folder is named *.RDC (any case) and directly holds a *.R3D file.
    static bool isTakeFolder(const std::filesystem::path& url);

    // "hh:mm:ss:ff" as a frame count at a nominal 24 frames per second, or nothing unless the text
    // has four decimal parts. Only differences within one card mean anything.
    static std::optional<std::int64_t> edgeFrames(std::string_view timecode);

    // Fills `pictureFrames`: from the edge timecode of the next take where it runs forwards, else
    // estimated from the take's bytes with the card's median bytes per frame.
    static std::vector<Take> withPictureLengths(std::vector<Take> takes);

    // "hh:mm:ss:ff" in seconds at the given frame rate, or nothing unless the text has four
    // decimal parts and the rate is positive.
    static std::optional<double> timecodeSeconds(std::string_view timecode, double fps);
};
