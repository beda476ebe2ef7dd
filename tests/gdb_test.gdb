# Commands of gdb_test.sh, for a process and for its core.
echo -- a handle, by value and by pointer --\n
set print pretty on
print *readings
print readings
print buffers
print no_array
print unmade
tslb show readings
tslb show plain
tslb show *bits
tslb show cut
echo -- slots --\n
tslb slot readings 0
tslb slot readings 3
tslb slot readings 9
tslb slot readings 25
tslb slot readings 30
tslb slot readings 0xffffffff
tslb slot plain 4399
tslb slot buffers 0
print *(reading_t *) $tslb_record(readings, 29)
print $tslb_record(readings, 500)
echo -- lists --\n
tslb list readings free
tslb list readings inactive
tslb list readings free 2
tslb list looped free
tslb list cut free
tslb list cut inactive
tslb list readings used
tslb list plain free
echo -- addresses --\n
tslb address buffers first_chunk
tslb address buffers last_chunk
tslb address buffers 0x1ff02
tslb address buffers 0x77
tslb address buffers wide_chunk
tslb address bits bit_chunk
tslb address readings 0
echo -- no arrays --\n
tslb show no_array
tslb show unmade
tslb show hanging
tslb show hollow
tslb list hollow free
tslb show 5
tslb slot unmade 0
tslb slot
tslb show look_up()
tslb show nowhere
