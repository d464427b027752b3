// Taking single databases from the server and giving them back to it.
#pragma once

// REQUIRES for all three: the Notes C API is loaded. The path is the caller's, native and full.

// Takes a database offline: nobody can open it until it is brought online. 3000; 13 when it is in
// use, 1000 on any other failure (both reported).
int TakeDbsOffline(const char* cpDbFile);

// Brings a database online. 3000, or 1000 (reported).
int BringDbsOnline(const char* cpDbFile);

// Brings a database that was put in its place online. 3000, or 1000 (reported).
int ActivateDb(const char* cpDbFile);
