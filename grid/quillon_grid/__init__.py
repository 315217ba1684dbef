"""What quillon-grid is made of; cli has the commands, grid what they act upon."""
