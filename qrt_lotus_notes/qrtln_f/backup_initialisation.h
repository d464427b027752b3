// The start of a backup: index, selection, archiving session.
#pragma once

// Builds the item queue of the backup from the database arguments, which it consumes. Returns 3000,
// 1000 (reported), or 11 for an incremental backup of a server that logs circularly.
int QRTLN_InitBackup();
