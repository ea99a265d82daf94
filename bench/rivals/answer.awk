# Each value as a line.
{ print $2 }
