"""Names of signals that folders, queries and number parsers could trip over."""

NAMES = ["plain", "a/b=c%d", "x,'y{z}[1]", "1.5", "späte ü", "%41", "a+b c", "q\"u?o#t*e:s\\"]
