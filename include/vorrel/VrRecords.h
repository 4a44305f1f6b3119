#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// A selected recording device. Made by the library when a device is selected; the host receives
/// the library's own object and keeps a share of it.
struct VrAudioDeviceInfo {
    std::string device_name;  ///< As listed by `Vorrel_GetAudioDevices`; UTF-8.
    std::int32_t vid = 0;     ///< USB vendor id.
    std::int32_t pid = 0;     ///< USB product id.
    std::uint16_t i_ch = 0;   ///< Number of input channels.
    std::uint16_t o_ch = 0;   ///< Number of output channels.
    /// Valid bits per sample of the device's preferred signed-integer PCM format.
    std::uint16_t PCM_supported_bits = 0;
    /// Container width of that format in bits.
    std::uint16_t PCM_record_bits = 0;
    std::vector<std::uint64_t> PCM_supported_freq;  ///< PCM sampling rates in Hz, ascending.
    std::vector<std::uint64_t> DSD_supported_freq;  ///< DSD one-bit rates in Hz, ascending.
};

/// What is recorded. Made by the host for `Vorrel_SetRecordSetting`, by the library for
/// `Vorrel_GetRecordSetting`.
struct VrRecordSetting {
    std::int32_t rec_type = 0;  ///< 0 = PCM, 1 = DSD.
    std::uint64_t freq = 0;     ///< Sampling rate in Hz; for DSD the one-bit rate (2822400, ...).
    /// Sample width in bits of saved WAV files, 16..32; checked for PCM only. Reported as 1 for
    /// DSD.
    std::uint16_t bits = 0;
};

/// One file to be written by `Vorrel_SaveFile`.
struct VrSaveSetting {
    /// Full path, UTF-8. The recording decides on WAV or DSF, not the path.
    std::string path;
    double start = 0.0;  ///< Start of the range in seconds of the recording, pauses cut out.
    double end = 0.0;    ///< End of the range in seconds, same scale.
    double gain = 0.0;   ///< Gain in decibels; 0 leaves the samples unchanged.
    /// UTF-8 keys and values. Written are "Title", "Artist", "AlbumArtist" and "Alubum" (the
    /// album; the spelling is part of the interface), other keys are ignored.
    std::map<std::string, std::string> tags;
};
