// The configuration file of virtual-ta: the same settings as its command
// line, one a line, so that a tool started by the service manager needs no
// long command line.
//
//   # Bob's PC
//   listen 0.0.0.0:4000
//   adapter ~/Kestrelbound/COM1=zyxel-2864:5552002
//   route 5551001=alices-pc:4000/ALICES-LINE-ID
//
// "NAME VALUE", the names of the long options without "--", "adapter" for an
// ADAPTER; "#" starts a comment. A path in adapter, trace or identity that
// begins with "~/" is in the home folder; another relative one is relative
// to the file's folder.
#pragma once

#include <string>

#include "virtual-ta/options.h"

namespace kb::virtual_ta {

// Applies the settings of the file to the options. False with a one-line
// reason that names the file and line ("line.conf:7: unknown setting 'rout'")
// if the file cannot be read or holds a bad setting.
[[nodiscard]] bool ReadConfigFile(const std::string& path, Options& options, std::string& error);

}  // namespace kb::virtual_ta
