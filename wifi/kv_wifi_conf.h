// The supplicant's configuration file: for the service network, or for one named by hand.
#pragma once

// Writes the configuration of the service network into the service work directory and starts the
// station on it, also when the file could not be written (traced): an older file may be there.
// Returns what KV_WIFI_StaConnect returns, and blocks like it. Any thread but the station's.
int __KV_WIFI_StaSupplicant();

// Writes the configuration of network `ssid` into `workDir`; an empty pass phrase makes it an open
// network. Both texts stand in the file as given: a quote or a line end in them is not escaped.
// Returns 0, or -1, traced, when the file could not be opened (nothing changed) or its name has
// more than 63 characters. Any thread; blocks for the file's writing only.
int __KV_WIFI_StaSupplicantDebug(const char* ssid, const char* passphrase, const char* workDir);
