/*
 * MVXDAB: a software receiver for DAB and DAB+ on a USB tuner stick.
 *
 * One receiver per process; no handles. Every function returns a 32-bit
 * integer: 1 success, 0 failure, and a few further values documented below.
 *
 * Threads. Every function may be called from any host thread at any time,
 * also while another thread opens or closes the receiver:
 *  - MVDAB_OpenDevice and MVDAB_CloseDevice are serialised against each
 *    other. An open that finds another open running or done returns 0 and
 *    changes nothing; an open that finds a close running waits for it, then
 *    opens. A close that finds an open running waits for it, then closes; a
 *    close that finds another close running waits for it and returns 1.
 *  - The calls that reach the device or the receiver's state (MVDAB_Start,
 *    MVDAB_Stop, MVDAB_SetFreqAndBW, MVDAB_DebugCMD and the service
 *    commands) are either finished before a close releases anything, or
 *    give their closed answer: a close waits for those already running and
 *    turns new ones away. While an open is still running they give their
 *    closed answer as well.
 *  - The status queries take no lock; while closed they return 0.
 *  - Inside a callback (on a receiver thread): MVDAB_CloseDevice,
 *    MVDAB_Stop and MVDAB_OpenDevice do nothing and return 0, since they
 *    would wait for the thread they run on. The service commands,
 *    MVDAB_SetFreqAndBW, MVDAB_Start, MVDAB_DebugCMD and the queries work
 *    there as on any other thread.
 *
 * Normal order for a host:
 *   set the callbacks; MVDAB_OpenDevice; MVDAB_SetFreqAndBW;
 *   poll MVDAB_GetSignalPresent / MVDAB_GetSignalLock and read the FIC;
 *   MVDAB_AddServiceCom for the wanted sub-channel; data arrive at the MSC
 *   callback; MVDAB_DelServiceCom or a new MVDAB_SetFreqAndBW;
 *   MVDAB_CloseDevice.
 *
 * Units: frequencies in kHz (the device library's unit); lengths in bytes.
 */
#ifndef MVXDAB_H
#define MVXDAB_H

#include <stdint.h>

/* On Windows the functions are __cdecl, exported from MVXDAB.dll and
 * imported by its hosts (MVDAB_STATIC: linked statically instead);
 * elsewhere they have default visibility. */
#if defined(_WIN32)
#  if defined(MVDAB_BUILDING_LIBRARY)
#    define MVDAB_API __declspec(dllexport)
#  elif defined(MVDAB_STATIC)
#    define MVDAB_API
#  else
#    define MVDAB_API __declspec(dllimport)
#  endif
#  define MVDAB_CALL __cdecl
#else
#  define MVDAB_API __attribute__((visibility("default")))
#  define MVDAB_CALL
#endif

#ifdef __cplusplus
extern "C" {
#endif

/*
 * FIC, MW FIC and MSC callbacks: (bytes, length, flags). `bytes` is valid for
 * the call only.
 *  - FIC: all FIBs (32 bytes each, CRC included) of one transmission frame:
 *    384, 96, 128 or 192 bytes for modes I..IV. flags bits 0..2: mode + 1
 *    (1 = mode I); bit 15 down: one bit per FIB in order, 1 = CRC good.
 *  - MSC, plain sub-channel: the decoded bytes of one transmission frame;
 *    flags = sub-channel id. DAB+ sub-channel: the audio part (110 * s bytes,
 *    s = bit rate / 8 kbit/s) of one Reed-Solomon corrected superframe, every
 *    120 ms once the superframe boundary is found; flags = sub-channel id,
 *    with bit 7 (0x80) set when the superframe's firecode failed after
 *    correction. Superframes are not delivered while the boundary is being
 *    searched, nor the fourth of four in a row with fewer than two correctable
 *    RS columns (the search then starts again).
 * FIC and plain MSC callbacks run on the demodulation thread (58.75 ms of
 * budget per step for everything); DAB+ MSC callbacks on the worker thread.
 */
typedef void (MVDAB_CALL *MVDAB_DataCallBack)(uint8_t* bytes, int32_t length, int32_t flags);
/* Packet callback: (packet with header and CRC, its size, address, sub-channel id).
 * One packet of a wanted address per call, 24, 48, 72 or 96 bytes, valid for
 * the call only; after a damaged packet the bytes up to the next good one may
 * come as one piece under that packet's address, CRC not passing.
 * Stream data callback: (bytes, length, flags), one 188-byte MPEG-2 transport
 * packet of a T-DMB stream per call, corrected by RS(204,188), in the order
 * sent; flags = sub-channel id, with bit 7 (0x80) set when the word could not
 * be corrected (the packet is then as received). Runs on the worker thread;
 * `bytes` is valid for the call only.
 * MVDAB_AddServiceCom does not accept packet-mode (type 1) or T-DMB (type 2)
 * sub-channels in this version, so neither callback is called yet. */
typedef void (MVDAB_CALL *MVDAB_PacketCallBack)(uint8_t* packet, int32_t size, int32_t address, int32_t subChannelId);
typedef void (MVDAB_CALL *MVDAB_StreamDataCallBack)(uint8_t* bytes, int32_t length, int32_t flags);

/* ---- Device control ---------------------------------------------------- */

/* Loads the device library, starts streaming, programs the device and starts
 * the receiver's threads; the receiver waits for MVDAB_SetFreqAndBW.
 * 1 running; 2 no device; 0 any other failure (nothing is left behind).
 * A second open without a close, or one while another open runs, is refused
 * with 0 and changes nothing. */
MVDAB_API int32_t MVDAB_CALL MVDAB_OpenDevice(void);
/* Stops the threads and releases everything. 1, also when closed; 0 only
 * inside a callback, where it does nothing. Waits for calls of other threads
 * that are running into the device, then for the threads' current step. */
MVDAB_API int32_t MVDAB_CALL MVDAB_CloseDevice(void);
/* Restarts the flow of samples after MVDAB_Stop. 1, or 0 on a device failure. */
MVDAB_API int32_t MVDAB_CALL MVDAB_Start(void);
/* Stops the flow of samples and drops all services. 1, also when closed; 0
 * when the device refused to stop (the receiver then keeps running) or
 * inside a callback. */
MVDAB_API int32_t MVDAB_CALL MVDAB_Stop(void);

/* Tunes `frequencyKhz` and restarts acquisition (or, on the frequency already
 * tuned with a clean FIC, only drops the services). 1, or 0 on failure. */
MVDAB_API int32_t MVDAB_CALL MVDAB_SetFreqAndBW(int32_t frequencyKhz);

/* ---- Status -------------------------------------------------------------- */

/* *present: -1 no DAB signal found, 0 undecided, 1 frame structure found. Returns 1. */
MVDAB_API int32_t MVDAB_CALL MVDAB_GetSignalPresent(int32_t* present);
/* Three answers: returns 1 with *locked = 1 (clean FIC), 1 with *locked = 0
 * (the search gave up), or 0 without writing (not known yet). */
MVDAB_API int32_t MVDAB_CALL MVDAB_GetSignalLock(int32_t* locked);
/* *quality: 100 (> 10 dB), 80 (> 8 dB), 50 (> 5 dB), 30, or 0 without a signal. Returns 1. */
MVDAB_API int32_t MVDAB_CALL MVDAB_GetSignalQuality(int32_t* quality);
/* No measurement: does nothing and returns 0. */
MVDAB_API int32_t MVDAB_CALL MVDAB_GetSignalStrength(int32_t* strength);
/* *frequencyKhz = the frequency last tuned (0 after open or stop, -1 after a
 * failed tuner update); *bandwidth = 1. Returns 1. */
MVDAB_API int32_t MVDAB_CALL MVDAB_GetFreqAndBW(int32_t* frequencyKhz, int32_t* bandwidth);
/* Tuner type 1: 168; type 2: 1016 (no unit); other types: returns 0, writes nothing. */
MVDAB_API int32_t MVDAB_CALL MVDAB_GetTunerRange(int32_t* range);
/* code 12 with *value 1: good-reception line follows the FIC; 0: line off
 * (the switch is kept while closed; the line is switched on an open device).
 * Returns 1 for code 12 in every state, else 0 (also for a null value). */
MVDAB_API int32_t MVDAB_CALL MVDAB_DebugCMD(int32_t code, int32_t* value);

/* ---- Callbacks: a null pointer is refused (0) and the old one stays. ----- */

MVDAB_API int32_t MVDAB_CALL MVDAB_SetFICCallBack(MVDAB_DataCallBack callback);
MVDAB_API int32_t MVDAB_CALL MVDAB_SetMWFICCallBack(MVDAB_DataCallBack callback);
MVDAB_API int32_t MVDAB_CALL MVDAB_SetMSCCallBack(MVDAB_DataCallBack callback);
MVDAB_API int32_t MVDAB_CALL MVDAB_SetPacketCallBack(MVDAB_PacketCallBack callback);
MVDAB_API int32_t MVDAB_CALL MVDAB_SetStreamDataCallBack(MVDAB_StreamDataCallBack callback);

/* ---- Services -------------------------------------------------------------
 * type 0: plain sub-channel; type 3: DAB+ audio. Parameters as in FIG 0/1:
 * startAddress in capacity units; longForm 0: tableIndex (0..63) selects the
 * short-form row; longForm 1: optionAndLevel bit 2 = option (0 set A, 1 set B),
 * bits 1..0 = protection level - 1, subChannelSize in capacity units.
 * packetAddress is not used; fecScheme's low 2 bits are stored.
 * Refused with 0, changing nothing: a sub-channel id above 63, a table index
 * above 63, optionAndLevel above 7, a size below one step of its set (set A
 * 12, 8, 6, 4 and set B 27, 21, 18, 15 capacity units for levels 1..4), a
 * negative start, or a sub-channel reaching past capacity unit 863.
 * One sub-channel at a time; a plain sub-channel's bytes arrive from the frame
 * after the one that completes 16 CIFs of time de-interleaving. */

/* 1 accepted; 5 this sub-channel is already requested; 0 refused (also a
 * DAB+ sub-channel above 192 kbit/s). */
MVDAB_API int32_t MVDAB_CALL MVDAB_AddServiceCom(int8_t type, int8_t subChannelId, int16_t startAddress,
                                      int8_t longForm, int8_t tableIndex, int8_t optionAndLevel,
                                      int16_t subChannelSize, int16_t packetAddress, int8_t fecScheme);
/* 1 deleted; 4 no such sub-channel (or closed); 0 a retune is pending. */
MVDAB_API int32_t MVDAB_CALL MVDAB_DelServiceCom(int32_t type, int8_t subChannelId, int16_t packetAddress);
/* Announces a change of the sub-channel's organisation at the CIF whose count
 * modulo 250 is changeCifLow (the new parameters are checked as by
 * MVDAB_AddServiceCom). The CIFs before it are decoded with the old
 * parameters, the frame after the change with the new ones; a retune or
 * service reset before it drops the change with the service. 1 announced;
 * 0 refused. */
MVDAB_API int32_t MVDAB_CALL MVDAB_ChangeSCOrg(int8_t type, int8_t subChannelId, int16_t startAddress,
                                    int8_t longForm, int8_t tableIndex, int8_t optionAndLevel,
                                    int16_t subChannelSize, int16_t packetAddress, int8_t fecScheme,
                                    int8_t changeCifHigh, int8_t changeCifLow);

#ifdef __cplusplus
}
#endif

#endif /* MVXDAB_H */
