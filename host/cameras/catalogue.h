// Cameras by their text, as programs take it:
//
//   sim:NAME[,key=value...]                    a model: generic, 8101, 8102, 8201 ... 8207
//   file:DEVICE.bin,CONFIG.bin[,key=value...]  a camera made of raw descriptors
//
//   payload=BYTES   largest payload, header included; "frame": a whole frame and its header in one transfer
//   header=2|6|12   length of payload headers (default 12)
//   eof=off         no payload has the end-of-frame bit
//   fid=stuck       the frame identifier never changes
//   speed=full      the camera sits on a full-speed port (default: high, or as a file's bcdUSB says)
//   seed=N          of noise and defects (default 1)
//   noise=SIGMA     standard deviation of the noise in levels (default 0)
//   mark=on         the frame number as black and white cells at the top left
//   defects=N       number of stuck pixels; a camera with a user-data store is shipped with the lists of them
//   latency=N       exposures before a new exposure time, gain, offset or binning shows (default 1)
//   light=FACTOR    brightness of the scene (default 1)
//   kelvin=K        colour temperature of the light, 1500 to 15000 (default 5500: neutral)
//   sharp=POSITION  focus position at which the scene is sharp (default 500)
//   scene=SCENE     chart (default), flat (a grey of 128 all over), grey (the chart without its colours), or the path
//                   of a PNG
//   store=STORE     the user-data store: empty, corrupt (lists with a wrong checksum), or the path of a file with its
//                   first bytes
//   stall=E:S       control S of entity E (1 camera terminal, 2 processing unit, 3 extension unit) stalls GET_INFO and
//                   GET_CUR; may be given for several
#pragma once

#include "host/cameras/simulated_camera.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace host::cameras {

struct CameraListing {
    std::string name; // as MakeCamera takes it
    std::uint16_t vendorId;
    std::uint16_t productId;
    std::string product;
};

// The models.
std::vector<CameraListing> ListCameras();

// Null and one line in `reason` when there is no such camera or option, or a file does not hold descriptors.
// `optionsAreWrong`, where wanted, tells whether it was an option of a camera that there may be.
std::shared_ptr<SimulatedCamera> MakeCamera(std::string_view text, std::string &reason,
                                            bool *optionsAreWrong = nullptr);

// A camera of these descriptors, as file: makes it.
std::shared_ptr<SimulatedCamera> MakeCamera(std::vector<std::uint8_t> device, std::vector<std::uint8_t> configuration,
                                            const CameraOptions &options, std::string &reason);

} // namespace host::cameras
