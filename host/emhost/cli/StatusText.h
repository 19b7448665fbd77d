// What a final status means to the person who ran em-host: the module's
// statuses and those of the stand-in BMC file transfer, which the module
// passes on.
#pragma once

#include <string>

enum class EmJob { kQuery, kCreate, kTransfer };

// One phrase, for example "another Korvex collection is already running".
std::string StatusMeaning(unsigned int status, EmJob job);
// "status 5: another Korvex collection is already running".
std::string StatusLine(unsigned int status, EmJob job);
