# LDF: run the schedule table MySchedule1 of a sample file once on the virtual bus, the
# adapter playing the master node CEM: its frame VL1_CEM_Frm1 is written, then the slave
# frame VL1_LSM_Frm1 is read (no virtual node answers identifier 02, so it stays empty).
sim ldf run 51000001 0 ../shared/corpus/ldf/j2602_1.ldf MySchedule1
