// The log in the journal of systemd.
#pragma once

namespace drovane {

// Log lines go to the journal from now on, each with its rovik in fields of its own:
//
//   PRIORITY           3 for level 2, 6 for level 3, 7 for level 4
//   MESSAGE            the text
//   SYSLOG_IDENTIFIER  drovane
//   DROVANE_ROVIK      the name
//   DROVANE_ID         the number
//
// Without a journal it says so on standard error, where the lines go then.
void openJournal();

}  // namespace drovane
