"""What can be made to go wrong with an answer, and the rules that say when."""
