// What files hold, to be compared.
#pragma once

#include <string>

// The bytes of a file; empty when there is none.
std::string bytesOf(const std::string& path);

// What users find in a database: every note and every unread mark, as text. Begins with "unsound"
// when the database is damaged or there is none. Its place, its identity and the times of its
// changes are left out.
std::string contentOf(const std::string& path);

// Whether a copy has what the database has.
bool sameContent(const std::string& copy, const std::string& database);
