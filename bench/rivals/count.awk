# How many values there are, and their sum.
{ count++; sum += $2 }
END { printf "%.0f %.0f\n", count, sum }
