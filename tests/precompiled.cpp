// Carries the headers that all test programs share; they are compiled once.
