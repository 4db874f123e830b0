# Prints the blocks of a page that open with the line `fence`.
$0 == fence { inside = 1; next }
/^```/ { inside = 0 }
inside
