// What an ensemble sends: identity and labels, sub-channels with their place,
// protection and payload, services with their components, the transmission
// mode, the seed and an optional scheduled reconfiguration. Built from a
// preset or a description file and turned into channel bits by Multiplex.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "generator/protection_profiles.h"

namespace gen {

struct SubChannelDesc {
    int id = 0;                 // SubChId, 0..63
    int startCu = -1;           // first capacity unit, 0..863; -1 = right after the previous sub-channel
    Protection protection;      // short form (UEP) or long form (EEP set A/B)
    int bitrateKbps = 0;        // kbit/s
    std::string payload;        // payload text as MakePayloadFromText takes it
    // Programme-associated data of an audio payload (MP2, DAB+ from AUs).
    std::string padLabel;       // Dynamic Label text, UTF-8, up to 128 bytes
    std::string padSlides;      // folder of .jpg/.png pictures sent as a slideshow
    // If set, every payload byte sent in this sub-channel is appended here,
    // logical frame after logical frame.
    std::shared_ptr<std::vector<uint8_t>> record;
};

enum class ComponentKind { kAudioMp2, kAudioDabPlus, kStreamData, kPacketData };

struct ComponentDesc {
    ComponentKind kind = ComponentKind::kAudioDabPlus;
    int subChannel = 0;         // SubChId carrying the component
    int dataType = 0;           // DSCTy for data components (6 bits)
    int scid = 1;               // packet mode: service component id, 12 bits
    int packetAddress = 1;      // packet mode: packet address, 1..1021
    bool dataGroups = true;     // packet mode: data groups carry the component
};

struct ServiceDesc {
    uint32_t sid = 0;           // above 0xFFFF: 32-bit data-service id (no label is sent then)
    std::string label;          // UTF-8, up to 16 characters of the EBU Latin set
    std::string shortLabel;     // up to 8 characters of the label, in order; empty = first 8
    std::vector<ComponentDesc> components;  // the first is the primary component
};

// A change of one sub-channel's organisation taking effect at a CIF count,
// announced in the ensemble information beforehand.
struct Reconfiguration {
    int cifCount = -1;          // CIF count (0..4999) of the first CIF in the new organisation; -1 = none
    int subChannel = 0;         // SubChId that changes
    int newStartCu = -1;        // new first capacity unit; -1 = unchanged
    bool changeProtection = false;
    Protection protection;      // the new protection, same bit rate
    int announceCifs = 200;     // CIFs of announcement before the change, 1..249
};

struct EnsembleDescription {
    uint16_t eid = 0xE123;      // ensemble id: country id (4 bits) + reference (12 bits)
    std::string label;          // as for services
    std::string shortLabel;     // as for services
    bool alarm = false;         // Al flag of the ensemble information
    int mode = 1;               // transmission mode 1..4
    uint64_t seed = 1;          // seed the presets derive payload seeds from
    int firstCifCount = 0;      // CIF count of the first CIF sent, 0..4999
    std::vector<SubChannelDesc> subChannels;
    std::vector<ServiceDesc> services;
    Reconfiguration reconfiguration;
};

// Options of the built-in presets.
struct PresetOptions {
    int mode = 1;               // 1..4
    uint64_t seed = 1;
    std::string dabplusFile;    // "default": DAB+ superframe file (.dabp) instead of synthetic superframes
    int dabplusKbps = 48;       // bit rate of that file
    std::string mp2File;        // "default": MPEG layer II file at 128 kbit/s instead of random bytes
};

// Built-in ensembles by name (PresetNames()). False with `error` set for an
// unknown name or bad options.
bool MakePresetDescription(const std::string& name, const PresetOptions& options, EnsembleDescription* out,
                           std::string* error);
std::vector<std::string> PresetNames();
// One line per preset for a tool's help.
std::string PresetHelp();

// Reads a description file (format in docs/generator.md). `mode` and `seed`
// are the defaults the file may override.
bool LoadDescriptionFile(const std::string& path, int mode, uint64_t seed, EnsembleDescription* out,
                         std::string* error);
bool ParseDescription(const std::string& text, int mode, uint64_t seed, EnsembleDescription* out,
                      std::string* error);

// The character flag field of a label: bit 15 = character 0; the characters
// of `shortLabel` matched in order, or the first 8 non-space characters.
uint16_t CharacterFlags(const std::string& label, const std::string& shortLabel);

}  // namespace gen
