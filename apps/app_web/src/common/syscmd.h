// Runs one system command without a shell.
#pragma once

// Splits cmd at blanks, runs "/bin/<first word>" (else "/sbin/<first word>") with the words
// as arguments and an empty environment, and waits for that child. No wildcard, variable or
// redirection has any meaning. Returns 0 once the child ended (its exit status is not
// looked at), -1 when there is no command, the command is out of bounds or no child could
// be created.
int HTTP_SYSTEM_CMD(const char *cmd);
