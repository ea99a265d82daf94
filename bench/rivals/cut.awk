# The value of each line "T<n>=<v>", behind the key of the rule that has matched.
BEGIN { FS = "=" }
/^T[0-9]+=[0-9]+$/ { print "5_1_0", $2 }
