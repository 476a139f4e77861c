# LIN: read a frame from a virtual slave node, then one UDS exchange with the virtual
# diagnostic slave (NAD 02): read the 17-character identifier F190.
sim lin 51000001 0 read 10
sim lin 51000001 0 uds 02 22F190
